# find_package(msgbus CONFIG): the client library as the target msgbus::msgbus.
include(${CMAKE_CURRENT_LIST_DIR}/msgbus-targets.cmake)
