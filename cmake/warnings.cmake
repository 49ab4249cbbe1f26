set(warnings_as_errors OFF)
if(DEFINED ENV{CI})
    set(warnings_as_errors ON)
endif()
option(BORVEN_WARNINGS_AS_ERRORS "Treat compiler warnings as errors; the default in CI" ${warnings_as_errors})

# Applied to every target of ours through this interface library, never to third-party code.
add_library(borven_warnings INTERFACE)
target_compile_options(borven_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>
    $<$<BOOL:${BORVEN_WARNINGS_AS_ERRORS}>:-Werror>)
