# What the bus needs beyond the compiler. `./dev setup` installs all of it.
list(PREPEND CMAKE_PREFIX_PATH ${PROJECT_SOURCE_DIR}/.deps/usr)

find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS thread chrono atomic)

find_package(fmt 11 CONFIG QUIET)
if(NOT fmt_FOUND)
    message(FATAL_ERROR "fmt 11 was not found (older and newer major versions do not do). "
                        "Run './dev setup': it unpacks fmt 11 into .deps/, where this build looks for it.")
endif()
