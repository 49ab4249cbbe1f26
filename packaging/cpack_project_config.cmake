# Read by CPack for each generator. Debian's packages lie below /usr; the archive for other systems has one folder at its top,
# and its programs work wherever it is unpacked.
if(CPACK_GENERATOR STREQUAL DEB)
    # With DESTDIR, the prefix is /usr while the files are installed, too: the units name the program by its path.
    set(CPACK_SET_DESTDIR ON)
    set(CPACK_INSTALL_PREFIX /usr)
    # What the library depends on. Where CPack finds it out, it adds scripts that call ldconfig, in place of the trigger.
    set(place ${CPACK_PACKAGE_DIRECTORY}/_CPack_Packages/libmsgbus0-depends)
    file(WRITE ${place}/debian/control "Source: x\n\nPackage: x\nArchitecture: any\n")
    set(libdir ${CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS})
    execute_process(COMMAND dpkg-shlibdeps -O --ignore-missing-info -l${libdir} -e${libdir}/libmsgbus.so -e${libdir}/libborven_host.so
                    WORKING_DIRECTORY ${place} OUTPUT_VARIABLE depends OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
                    COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "shlibs:Depends=" "" CPACK_DEBIAN_LIBMSGBUS0_PACKAGE_DEPENDS "${depends}")
else()
    set(ENV{BORVEN_ARCHIVE_PREFIX} /usr/local)
    set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
    set(CPACK_MONOLITHIC_INSTALL ON)
endif()
