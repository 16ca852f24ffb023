# kspool_module(NAME SOURCES...): the object files of one folder. Under sanitizers, too, tests call them
# often enough for -O1 to pay, and scripts/check-abi reads their types.
function(kspool_module name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PRIVATE kspool_compiler)
  if(KSPOOL_SANITIZE)
    target_compile_options(${name} PRIVATE -O1 -g)
  endif()
endfunction()

# kspool_library(NAME MODULES...): lib<NAME>.so.1 and lib<NAME>.a (target <NAME>_static) from
# modules. The shared library exports the symbols that cmake/exports.list names for it, and no others.
# Symbols of libkspool carry a version; symbols of the platform do not, so that another implementation
# needs the names only.
function(kspool_library name)
  set(list ${PROJECT_SOURCE_DIR}/cmake/exports.list)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  file(STRINGS ${list} rows REGEX "^${name}[ \t]")
  set(version "")
  if(name STREQUAL "kspool")
    set(version "KSPOOL_1 ")
  endif()
  set(script "${version}{\n  global:\n")
  foreach(row IN LISTS rows)
    string(REGEX REPLACE "^${name}[ \t]+" "" symbol ${row})
    string(APPEND script "    ${symbol};\n")
  endforeach()
  string(APPEND script "  local: *;\n};\n")
  set(map ${PROJECT_BINARY_DIR}/${name}.map)
  file(CONFIGURE OUTPUT ${map} CONTENT "${script}" @ONLY)

  set(objects "")
  foreach(module IN LISTS ARGN)
    list(APPEND objects $<TARGET_OBJECTS:${module}>)
  endforeach()
  add_library(${name} SHARED ${objects})
  add_library(${name}_static STATIC ${objects})
  set_target_properties(${name} PROPERTIES SOVERSION 1 LINKER_LANGUAGE CXX LINK_DEPENDS ${map})
  set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name} LINKER_LANGUAGE CXX)
  # C programs link the archive, too.
  target_link_libraries(${name}_static INTERFACE $<INSTALL_INTERFACE:stdc++>)
  target_link_options(${name} PRIVATE -Wl,--version-script=${map})
  if(NOT KSPOOL_SANITIZE)  # clang links the run-time of a sanitizer into programs only
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  target_link_libraries(${name} PRIVATE kspool_compiler)
  foreach(target ${name} ${name}_static)
    target_include_directories(${target} INTERFACE
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  endforeach()
endfunction()
