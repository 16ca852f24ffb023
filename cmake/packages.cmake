# Debian packages, one for each component. scripts/package makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "the kspool developers")
set(CPACK_PACKAGE_CONTACT "the kspool developers <developers@kspool.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian_files.cmake)
set(CPACK_KSPOOL_SOURCE ${PROJECT_SOURCE_DIR})

# debian_package(COMPONENT NAME SECTION SUMMARY MORE DEPENDS...)
macro(debian_package component name section summary more)
  string(TOUPPER ${component} upper)
  string(REPLACE ";" ", " depends "${ARGN}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${more}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS OFF)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
endmacro()
set(this "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
debian_package(runtime libkspool1 libs "client library of a backup storage pool"
  "Answers from memory whether a block of data is known to the pool, and speaks\nto the pool's Metabase server.")
debian_package(development libkspool-dev libdevel "client library of a backup storage pool, for development"
  "Headers, archives, manual pages and what build systems need."
  "libkspool1 ${this}" "libcurl4-openssl-dev")
debian_package(tools kspool-tools utils "command-line programs for a backup storage pool"
  "Deduplicates and backs up files, looks into cache files, speaks to the pool's\nserver, and is one for tests."
  "libkspool1 ${this}")
debian_package(documentation libkspool-doc doc "client library of a backup storage pool, documentation"
  "Guides, reference, file and wire formats, examples.")
if(KSPOOL_BUILD_PYTHON)
  debian_package(python python3-kspool python "client library of a backup storage pool, for Python"
    "The fingerprint cache, sessions with the pool's server, and a server for\ntests."
    "libkspool1 ${this}" "python3 (>= 3.11~)" "python3-cffi-backend")
endif()
# Who links which name needs which package; the linker's cache is refreshed by its trigger.
set(control ${PROJECT_BINARY_DIR}/control)
file(WRITE ${control}/shlibs "libkspool 1 libkspool1 (>= ${PROJECT_VERSION})\n"
                             "libkspool_platform 1 libkspool1 (>= ${PROJECT_VERSION})\n")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
if(KSPOOL_BUILD_PYTHON)  # the interpreter's byte code comes and goes with the package
  file(WRITE ${control}/postinst "#!/bin/sh\nset -e\nif command -v py3compile >/dev/null; then py3compile -p python3-kspool; fi\n")
  file(WRITE ${control}/prerm "#!/bin/sh\nset -e\nif command -v py3clean >/dev/null; then py3clean -p python3-kspool; fi\n")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${control}/postinst ${control}/prerm)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS kspool-tools)
endif()
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
include(CPack)
