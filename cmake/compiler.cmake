# Warnings of our own code, as errors, hardening, and the sanitizers. Everything of ours links kspool_compiler.
add_library(kspool_compiler INTERFACE)
target_compile_options(kspool_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  # What nobody set is not 0 by chance.
  $<$<CONFIG:Debug>:-ftrivial-auto-var-init=pattern>
  # gcc 12 warns of overlaps inside its own std::string when it optimises.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
  # Calls between our own exported functions need not go through the linker's table.
  $<$<C_COMPILER_ID:GNU>:-fno-semantic-interposition>)
target_include_directories(kspool_compiler INTERFACE ${PROJECT_SOURCE_DIR}
                                                     ${PROJECT_SOURCE_DIR}/include)
if(KSPOOL_HARDEN AND NOT KSPOOL_SANITIZE)
  target_compile_options(kspool_compiler INTERFACE
    -fstack-protector-strong -fstack-clash-protection -fcf-protection
    # Checked buffers are for optimised code only.
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=3>)
  target_link_options(kspool_compiler INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(KSPOOL_SANITIZE)
  target_compile_options(kspool_compiler INTERFACE
    -fsanitize=${KSPOOL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kspool_compiler INTERFACE -fsanitize=${KSPOOL_SANITIZE})
endif()
