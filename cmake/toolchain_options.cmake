# Assertions are off in Release builds only. CMake would turn them off for RelWithDebInfo, too, the type of the everyday
# build and of the sanitizer builds.
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")

# Sanitizers are chosen by a preset and apply to every object, third-party code built here included.
set(BORVEN_SANITIZER_FLAGS "" CACHE STRING "Sanitizer options for compiler and linker")
separate_arguments(borvenSanitizerFlags UNIX_COMMAND "${BORVEN_SANITIZER_FLAGS}")
add_compile_options(${borvenSanitizerFlags})
add_link_options(${borvenSanitizerFlags})

option(BORVEN_BUILD_FUZZERS "Build the fuzzers (clang only)" OFF)
if(BORVEN_BUILD_FUZZERS)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_program(BORVEN_CCACHE ccache)
if(BORVEN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${BORVEN_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${BORVEN_CCACHE})
endif()

# __FILE__ and its kin give paths relative to the source tree, so that log lines do not depend on where the tree was
# built. Only there: debuggers and coverage need the real paths.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
# Programs find the libraries of their build relative to themselves: an installed file, whose path is replaced in place,
# then does not depend on the length of the build's.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# The sanitizers' run-time library for C lacks what a sanitized library in C++ needs.
if(BORVEN_SANITIZER_FLAGS)
    set(CMAKE_C_LINK_EXECUTABLE "${CMAKE_CXX_LINK_EXECUTABLE}")
endif()
