# With KSPOOL_JOIN the sources of a target are compiled as one, which reads the headers of others once and
# takes half the time. Names in anonymous namespaces may clash then: sources where they do are compiled as
# a second unit. Those of the library are joined under sanitizers only: an optimised library is compiled
# as everywhere. scripts/check-tidy sees that each source compiles by itself as well, and that
# none shadows a name of its own.
option(KSPOOL_JOIN "Compile the sources of a target joined" OFF)

function(join_as unit folder)
  foreach(source IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${PROJECT_SOURCE_DIR}/${folder})
    set_source_files_properties(${source} DIRECTORY ${folder} PROPERTIES UNITY_GROUP ${unit})
  endforeach()
endfunction()

# join(FOLDER TARGETS [SOURCES...]): the sources of the targets of a folder; those that are named apart.
function(join folder targets)
  foreach(target IN LISTS targets)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP
      UNITY_BUILD_CODE_BEFORE_INCLUDE "#pragma GCC diagnostic ignored \"-Wshadow\"")
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)  # which takes a joined source for a header
      target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
    endif()
    get_target_property(sources ${target} SOURCES)
    join_as(first ${folder} ${sources})
  endforeach()
  join_as(second ${folder} ${ARGN})
endfunction()

if(KSPOOL_JOIN AND KSPOOL_BUILD_TOOLS)
  join(tools "kspool-agent;kspool-cache;kspool-mb;tools_shared" shared/input.cpp)
endif()
if(KSPOOL_JOIN AND KSPOOL_BUILD_SANDBOX)
  join(sandbox "kspool-sandbox;kspool_sandbox"
       http/calls.cpp http/events.cpp http/exchange.cpp http/server.cpp request.cpp store/pos.cpp)
endif()
if(KSPOOL_JOIN AND KSPOOL_SANITIZE)
  join(platform/standin "standin_status;standin_support;standin_ini;standin_net;standin_po;standin_ws")
  foreach(folder common ks mb kscache)
    join(${folder} kspool_${folder})
  endforeach()
endif()
