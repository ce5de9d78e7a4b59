# How every target of this project is built: one warning level, one place for libraries, one run path.

# Where the shared libraries lie relative to the installation's root and to the build tree's.
set(CE_LIBRARY_DIR "${CMAKE_INSTALL_LIBDIR}/containerescape-agent")
# The libraries that implement the contract of sdk/include: what a module is linked against.
set(CE_CONTRACT_LIBRARIES framework sdk ftrace_module filenotify_module container_module process_collect_module)

add_library(ce_options INTERFACE)
target_compile_options(ce_options INTERFACE $<BUILD_INTERFACE:
    -Wall -Wextra -Wpedantic -Wformat=2 -Wcast-qual -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wextra-semi>
    # GCC 12 reports std::string's operator+ at -O3 (its bug 105651).
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>>)
target_include_directories(ce_options INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/sdk/include>
    $<BUILD_INTERFACE:${CE_CONCURRENTQUEUE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/containerescape>)
target_compile_features(ce_options INTERFACE cxx_std_20)
# All symbols are looked up at the start, and their table is read-only from then on: the first alarm does not pay for it,
# and nothing that writes where it should not can change what is called.
target_link_options(ce_options INTERFACE $<BUILD_INTERFACE:LINKER:-z,relro,-z,now>)
if(CE_SANITIZE)
    target_compile_options(ce_options INTERFACE $<BUILD_INTERFACE:
        -fsanitize=${CE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer>)
    target_link_options(ce_options INTERFACE $<BUILD_INTERFACE:-fsanitize=${CE_SANITIZE}>)
    if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
        # Its run-time library is linked into programs alone, unless told otherwise: then no library would be whole.
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
            OUTPUT_VARIABLE directory OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
        target_link_options(ce_options INTERFACE $<BUILD_INTERFACE:-shared-libsan -Wl,-rpath,${directory}>)
    endif()
endif()

# What the host's components may include beside the contract; the module never gets this.
add_library(ce_host_options INTERFACE)
target_include_directories(ce_host_options INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_link_libraries(ce_host_options INTERFACE ce_options)

# Tests and benchmarks. At -O3 GCC 12 warns of vectors that grow and of texts in temporaries which are all in order: a
# condition that it has not understood is a path that it takes for possible. The product is built with these warnings.
add_library(ce_test_options INTERFACE)
target_link_libraries(ce_test_options INTERFACE ce_host_options)
target_compile_options(ce_test_options INTERFACE
    "$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized;-Wno-array-bounds;-Wno-stringop-overflow;-Wno-stringop-overread>")

# ce_precompiled(name file position-independent): a target whose precompiled header others take over with
# ce_take_precompiled(target name), if that is wanted. It is compiled once for all of them.
function(ce_precompiled name file position_independent)
    if(CE_PRECOMPILE)
        # C, too: a target with sources in both languages looks for both.
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/${name}.cpp CONTENT "")
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/${name}.c CONTENT "typedef int nothing;\n")
        add_library(${name} OBJECT ${PROJECT_BINARY_DIR}/${name}.cpp ${PROJECT_BINARY_DIR}/${name}.c)
        set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ${position_independent})
        target_link_libraries(${name} PRIVATE ${ARGN})
        target_precompile_headers(${name} PRIVATE
            "$<$<COMPILE_LANGUAGE:CXX>:${PROJECT_SOURCE_DIR}/cmake/${file}>"
            "$<$<COMPILE_LANGUAGE:C>:stddef.h>")
    endif()
endfunction()
function(ce_take_precompiled target name)
    if(CE_PRECOMPILE)
        target_precompile_headers(${target} REUSE_FROM ${name})
    endif()
endfunction()
ce_precompiled(ce_precompiled_library Precompiled.h ON
    ce_host_options Poco::Foundation Poco::Util PkgConfig::JSONCPP Threads::Threads)

# ce_shared_library(target output-name source...): a shared library "lib<output-name>.so" without a version suffix,
# because a plug-in is loaded by that very name.
function(ce_shared_library target output)
    add_library(${target} SHARED ${ARGN})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${output}
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${CE_LIBRARY_DIR}
        BUILD_RPATH "$ORIGIN"
        INSTALL_RPATH "$ORIGIN")
    target_link_options(${target} PRIVATE -Wl,--no-undefined -Wl,--as-needed)
    ce_take_precompiled(${target} ce_precompiled_library)
    set(export "")
    if(target IN_LIST CE_CONTRACT_LIBRARIES)
        set(export EXPORT containerescape-sdk)
    endif()
    install(TARGETS ${target} ${export} LIBRARY DESTINATION ${CE_LIBRARY_DIR})
endfunction()
