# Installs into a scratch prefix and builds a C99 caller the way another
# service of the controller would: headers and flags from pkg-config only.
set(prefix "${BUILD_DIR}/install-check")
file(REMOVE_RECURSE "${prefix}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed")
endif()
file(GLOB_RECURSE pc "${prefix}/*/zelo.pc")
get_filename_component(pcdir "${pc}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
execute_process(COMMAND pkg-config --cflags --libs zelo OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know zelo")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND ${CC} -std=c99 -Wall -Wextra -Werror -fPIC -c "${SOURCE}" ${flags}
                        -o "${prefix}/caller.o"
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "installed headers do not compile: ${err}")
endif()
execute_process(COMMAND ${CC} -shared "${prefix}/caller.o" ${flags} -Wl,--no-undefined
                        -o "${prefix}/libcaller.so"
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cannot link against the installed library: ${err}")
endif()
message(STATUS "installed library, headers and zelo.pc serve a C99 caller")
