# How every target of this project is built: one warning level, one place for libraries, one run path.

# Where the shared libraries lie relative to the installation's root and to the build tree's.
set(CE_LIBRARY_DIR "${CMAKE_INSTALL_LIBDIR}/containerescape-agent")

add_library(ce_options INTERFACE)
target_compile_options(ce_options INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wformat=2 -Wcast-qual -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wextra-semi>
    # GCC 12 reports std::string's operator+ at -O3 (its bug 105651).
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_include_directories(ce_options INTERFACE
    ${PROJECT_SOURCE_DIR}/sdk/include)
if(CE_SANITIZE)
    target_compile_options(ce_options INTERFACE -fsanitize=${CE_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(ce_options INTERFACE -fsanitize=${CE_SANITIZE})
endif()

# What the host's components may include beside the contract; the module never gets this.
add_library(ce_host_options INTERFACE)
target_include_directories(ce_host_options INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(ce_host_options INTERFACE ce_options)

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
    list(LENGTH ARGN sources)
    if(CE_PRECOMPILE AND sources GREATER 5)  # fewer do not pay for it
        target_precompile_headers(${target} PRIVATE
            "$<$<COMPILE_LANGUAGE:CXX>:${PROJECT_SOURCE_DIR}/cmake/Precompiled.h>")
    endif()
    install(TARGETS ${target} LIBRARY DESTINATION ${CE_LIBRARY_DIR})
endfunction()
