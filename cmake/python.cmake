# The Python package is built by Debian's own interpreter, for which Debian's packages of cffi and of other
# modules are made: where its headers and cffi are there. Under sanitizers, whose run-time would have to be
# preloaded into the interpreter, it is built only when it is asked for.
find_program(KSPOOL_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
set(found OFF)
if(KSPOOL_SYSTEM_PYTHON)
  execute_process(COMMAND ${KSPOOL_SYSTEM_PYTHON} -c "import cffi, sysconfig; print(sysconfig.get_path('include'), end='')"
                  OUTPUT_VARIABLE KSPOOL_PYTHON_INCLUDE ERROR_QUIET)
  if(EXISTS "${KSPOOL_PYTHON_INCLUDE}/Python.h" AND NOT KSPOOL_SANITIZE)
    set(found ON)
  endif()
endif()
option(KSPOOL_BUILD_PYTHON "Build the Python package" ${found})
set(KSPOOL_PYTHON_FOLDER lib/python3/dist-packages)  # below the prefix, as Debian has it
