# Warnings as errors, hardening, and the sanitizers. Every target of ours links kspool_compiler.
add_library(kspool_compiler INTERFACE)
target_compile_options(kspool_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  # Fill uninitialised variables with a pattern: zero would hide a missing assignment.
  $<$<CONFIG:Debug>:-ftrivial-auto-var-init=pattern>
  # gcc 12 warns of overlaps inside its own std::string in optimised builds.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
  # Calls between our own exported functions bypass the linker's table; nobody replaces these functions.
  $<$<C_COMPILER_ID:GNU>:-fno-semantic-interposition>)
target_include_directories(kspool_compiler INTERFACE ${PROJECT_SOURCE_DIR}
                                                     ${PROJECT_SOURCE_DIR}/include)
if(KSPOOL_HARDEN AND NOT KSPOOL_SANITIZE)
  target_compile_options(kspool_compiler INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    # Marks where indirect jumps may end. Systems check that only in programs all of whose parts have the
    # property for it, the C library's start files too. The figures of tests/guard include the marks.
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>
    # Checked buffers work in optimised code only.
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=3>)
  target_link_options(kspool_compiler INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(KSPOOL_SANITIZE)
  target_compile_options(kspool_compiler INTERFACE
    -fsanitize=${KSPOOL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kspool_compiler INTERFACE -fsanitize=${KSPOOL_SANITIZE})
  target_compile_definitions(kspool_compiler INTERFACE KSPOOL_SANITIZED)
endif()
