# Debian's packages, one per component, and an archive of everything for other systems ('cpack -G TXZ').
set(CPACK_PACKAGE_NAME borven-message-bus)
set(CPACK_PACKAGE_VENDOR "BorvenOS")
set(CPACK_PACKAGE_CONTACT "BorvenOS message bus developers <bus@borven.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_FILE_NAME borven-message-bus-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR}) # of the archive
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_THREADS 1) # the same bytes on every machine
set(CPACK_COMPONENTS_ALL msgbusd msgbus libmsgbus0 libmsgbus-dev python3-msgbus)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/cpack_project_config.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE borven-message-bus)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# They replace the one package of 0.1.
set(CPACK_DEBIAN_PACKAGE_CONFLICTS borven-message-bus)
set(CPACK_DEBIAN_PACKAGE_REPLACES borven-message-bus)

# NAME SECTION DESCRIPTION, the first line of which is the synopsis.
macro(borven_debian_package name section description)
    string(TOUPPER ${name} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}")
endmacro()

borven_debian_package(msgbusd misc "message bus for the processes of one machine: server
Publishers push 64-bit values to named topics, and subscribers get each value
once and in order, within microseconds.
.
This package has the server program, with units of systemd for users and for
the system. Each user can have a bus of their own.")
set(CPACK_DEBIAN_MSGBUSD_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MSGBUSD_PACKAGE_DEPENDS "libmsgbus0 (= ${PROJECT_VERSION}), adduser")
set(CPACK_DEBIAN_MSGBUSD_PACKAGE_RECOMMENDS msgbus)

borven_debian_package(msgbus misc "message bus for the processes of one machine: command line
Publishers push 64-bit values to named topics, and subscribers get each value
once and in order, within microseconds.
.
This package has the command line: it publishes and subscribes, records and
plays, shows what is on the bus and finds out what is wrong. The documents are
here, too.")
set(CPACK_DEBIAN_MSGBUS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MSGBUS_PACKAGE_DEPENDS "libmsgbus0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_MSGBUS_PACKAGE_RECOMMENDS msgbusd)

borven_debian_package(libmsgbus0 libs "message bus for the processes of one machine: client library
Publishers push 64-bit values to named topics, and subscribers get each value
once and in order, within microseconds.
.
This package has the library for programs in C++ and C.")
# What it depends on is found in cpack_project_config.cmake.

borven_debian_package(libmsgbus-dev libdevel "message bus for the processes of one machine: development files
Publishers push 64-bit values to named topics, and subscribers get each value
once and in order, within microseconds.
.
This package has the headers for C++ and C, what CMake and pkg-config need, and
examples. A program that serves a bus itself needs the package msgbusd, too.")
set(CPACK_DEBIAN_LIBMSGBUS-DEV_PACKAGE_DEPENDS "libmsgbus0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBMSGBUS-DEV_PACKAGE_SUGGESTS msgbusd)

borven_debian_package(python3-msgbus python "message bus for the processes of one machine: Python module
Publishers push 64-bit values to named topics, and subscribers get each value
once and in order, within microseconds.
.
This package has the module for Python 3.")
set(CPACK_DEBIAN_PYTHON3-MSGBUS_PACKAGE_DEPENDS "libmsgbus0 (= ${PROJECT_VERSION}), python3")
set(CPACK_DEBIAN_PYTHON3-MSGBUS_PACKAGE_ARCHITECTURE all)

set(CPACK_DEBIAN_MSGBUSD_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/msgbusd/postinst ${CMAKE_CURRENT_SOURCE_DIR}/debian/msgbusd/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/msgbusd/postrm)
set(CPACK_DEBIAN_PYTHON3-MSGBUS_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/python3-msgbus/postinst ${CMAKE_CURRENT_SOURCE_DIR}/debian/python3-msgbus/prerm)
set(CPACK_DEBIAN_LIBMSGBUS0_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/libmsgbus0/triggers ${made}/shlibs ${made}/symbols)

include(CPack)
