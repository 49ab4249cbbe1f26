set(BORVEN_IDLC_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "Folder of the IDL compiler")

# borven_idl(<name> <entity> <file>)
#
# Compiles the entity (such as br.MessageBus) that the IDL file defines, and makes
#   <name>_idl    the records in br_MessageBus.h, and the dispatch: for servers;
#   <name>_stubs  the client stubs in br_MessageBus_client.h, those in two steps in br_MessageBus_begun.h, and the
#                 records: for clients.
# Both are static libraries that may be linked into a shared one. The compiler lists the used files and its own as
# dependencies.
function(borven_idl name entity file)
    string(REPLACE "." "_" base ${entity})
    cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} NORMALIZE)
    set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name}_idl)
    add_custom_command(
        OUTPUT ${folder}/${base}.h ${folder}/${base}_dispatch.cpp ${folder}/${base}_client.h ${folder}/${base}_client.cpp
               ${folder}/${base}_begun.h ${folder}/${base}_begun.cpp
        COMMAND ${BORVEN_IDLC_PYTHON} -B ${BORVEN_IDLC_DIR} ${file} --entity ${entity} --output ${folder}
                --depfile ${folder}/${base}.d
        DEPENDS ${file}
        DEPFILE ${folder}/${base}.d
        COMMENT "Compiling the IDL of ${entity}"
        VERBATIM)

    add_library(${name}_idl STATIC ${folder}/${base}.h ${folder}/${base}_dispatch.cpp)
    target_include_directories(${name}_idl INTERFACE ${folder})
    target_link_libraries(${name}_idl PUBLIC borven_interfaces PRIVATE borven_warnings)

    # Links the other library for the records, and so that one target alone runs the compiler. The dispatch is an object
    # of its own in that library, which no client links in. So are the calls in two steps, which not every client makes.
    add_library(${name}_stubs STATIC ${folder}/${base}_client.h ${folder}/${base}_client.cpp
                ${folder}/${base}_begun.h ${folder}/${base}_begun.cpp)
    target_link_libraries(${name}_stubs PUBLIC ${name}_idl PRIVATE borven_warnings)
    set_target_properties(${name}_idl ${name}_stubs PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()
