# Puts the files of a web page into a program, as dashboard/page_files.h offers them. Included, this file defines
#   borven_embed_page(TARGET FOLDER)
# and run as a script (cmake -P) with FOLDER and OUTPUT it writes the source. index.html is at the path "/".

if(CMAKE_SCRIPT_MODE_FILE)
    set(type_html "text/html; charset=utf-8")
    set(type_css "text/css; charset=utf-8")
    set(type_js "text/javascript; charset=utf-8")
    set(type_svg "image/svg+xml")
    set(arrays "")
    set(rows "")
    set(number 0)
    file(GLOB_RECURSE names RELATIVE ${FOLDER} ${FOLDER}/*)
    foreach(name ${names})
        string(REGEX REPLACE "^.*\\." "" extension ${name})
        if(NOT DEFINED type_${extension})
            message(FATAL_ERROR "${name}: there is no media type for .${extension} in embed_page.cmake")
        endif()
        set(path /${name})
        if(name STREQUAL "index.html")
            set(path /)
        endif()
        file(READ ${FOLDER}/${name} bytes HEX)
        string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
        string(APPEND arrays "constexpr unsigned char file${number}[] = {${bytes}};\n")
        string(APPEND rows "    {\"${path}\", \"${type_${extension}}\", View(file${number})},\n")
        math(EXPR number "${number} + 1")
    endforeach()
    file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT [[// Written by cmake/embed_page.cmake.
#include "dashboard/page_files.h"

#include <algorithm>
#include <array>
#include <span>

namespace dashboard {

namespace {

@arrays@
std::string_view View(std::span<const unsigned char> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

const std::array<PageFile, @number@> Files{{
@rows@}};

} // namespace

const PageFile* FindPageFile(std::string_view path) noexcept {
    const auto found = std::find_if(Files.begin(), Files.end(), [&](const PageFile& file) { return file.path == path; });
    return found == Files.end() ? nullptr : &*found;
}

} // namespace dashboard
]])
    return()
endif()

set(borven_embed_page_script ${CMAKE_CURRENT_LIST_FILE})

function(borven_embed_page target folder)
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}_page_files.cpp)
    file(GLOB_RECURSE files CONFIGURE_DEPENDS ${folder}/*)
    add_custom_command(OUTPUT ${source}
        COMMAND ${CMAKE_COMMAND} -DFOLDER=${folder} -DOUTPUT=${source} -P ${borven_embed_page_script}
        DEPENDS ${files} ${borven_embed_page_script} VERBATIM)
    target_sources(${target} PRIVATE ${source})
endfunction()
