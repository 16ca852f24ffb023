# What Debian wants of each package besides its files: no search paths for libraries, compressed manual
# pages and change log, and a note on copyright.
file(GLOB binaries LIST_DIRECTORIES false "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/bin/*"
     "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/lib/*/lib*.so.*"
     "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/lib/python3/dist-packages/*/*.so")
foreach(binary IN LISTS binaries)
  file(RPATH_REMOVE FILE ${binary})
endforeach()
file(GLOB pages LIST_DIRECTORIES false "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man*/*")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(folder "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  file(MAKE_DIRECTORY ${folder})
  set(name ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
  string(TIMESTAMP day "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${folder}/changelog.Debian "${name} (${version}) unstable; urgency=medium\n\n"
       "  * As released; changelog.gz tells what is new.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${day}\n")
  execute_process(COMMAND gzip -9nf ${folder}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
  file(COPY_FILE ${CPACK_KSPOOL_SOURCE}/CHANGELOG.md ${folder}/changelog)
  execute_process(COMMAND gzip -9nf ${folder}/changelog COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE ${folder}/copyright "Copyright 2026 the kspool developers\n\nNo licence has been granted yet: all rights reserved.\n")
endforeach()
