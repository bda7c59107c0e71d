# What the list files of the project share: the warnings, the rules of a shared library, and the word on a missing part.

add_library(quorvil_warnings INTERFACE)
target_compile_options(quorvil_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual)

# g++ 12 sees uninitialised values inside its own <regex> and <functional> once a sanitizer is on.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_compile_options(quorvil_warnings INTERFACE -Wno-maybe-uninitialized)
endif()

# quorvil_target(<target>): the rules that hold for everything that is built here, without passing them on to users.
function(quorvil_target target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:quorvil_warnings>)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    # 64-bit file offsets on 32-bit targets; the time type keeps its width.
    target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64)
endfunction()

# quorvil_shared_library(<target>): a versioned library that exports only what is marked, resolved whole at load.
function(quorvil_shared_library target)
    quorvil_target(${target})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        CXX_VISIBILITY_PRESET hidden
        INTERPROCEDURAL_OPTIMIZATION OFF
        UNITY_BUILD OFF
        LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib"
        INSTALL_RPATH "$ORIGIN"
        VERIFY_INTERFACE_HEADER_SETS ON)
    target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
    # clang's sanitizers leave their runtime to the executable.
    if(NOT (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize"))
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()

# quorvil_missing(<part> <package>): says that a part is left out, or stops where all parts are wanted.
function(quorvil_missing part package)
    if(QUORVIL_REQUIRE_ALL)
        message(FATAL_ERROR "${part}: ${package} is not installed")
    endif()
    message(STATUS "${part} left out: ${package} is not installed")
endfunction()
