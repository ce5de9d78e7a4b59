# Installs the build tree BUILD into an empty folder, builds the project EXAMPLE there with nothing else, and looks for
# the module's entry point. The folder is not the prefix of the configuration: the package must be relocatable.
set(work ${BUILD}/tests/packaging)
function(run)
    execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
    if(status)
        message(FATAL_ERROR "${ARGN}: ${status}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${work}/root ${work}/build)
set(ENV{DESTDIR} ${work}/root)
run(${CMAKE_COMMAND} --install ${BUILD})
run(${CMAKE_COMMAND} -S ${EXAMPLE} -B ${work}/build -D CMAKE_PREFIX_PATH=${work}/root${PREFIX}
    -D CMAKE_CXX_COMPILER=${COMPILER} "-D CMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
run(${CMAKE_COMMAND} --build ${work}/build)
run(${NM} --dynamic --defined-only ${work}/build/libhello_module.so)
if(NOT output MATCHES " T CreateModule\n")
    message(FATAL_ERROR "The module exports no CreateModule:\n${output}")
endif()
file(REMOVE_RECURSE ${work}/root ${work}/build)
