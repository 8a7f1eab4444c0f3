# Run by norvex_embed_text: writes HEADER with the text of FILES (separated by |) as string views in
# NAMESPACE.

set(kChunkLength 8000) # characters in one literal; MSVC refuses literals of more than 16 kB
set(delimiter "NORVEX")

string(REPLACE "|" ";" files "${FILES}")
set(text "#pragma once\n\n// Made by the build; edit the files it was made from.\n\n#include <string_view>\n\n")
string(APPEND text "namespace ${NAMESPACE} {\n")
foreach(file IN LISTS files)
    get_filename_component(name "${file}" NAME_WE)
    file(READ "${file}" content)
    string(REPLACE "\r\n" "\n" content "${content}")
    string(LENGTH "${content}" length)
    string(APPEND text "\ninline constexpr std::string_view k${name} =")
    set(offset 0)
    while(offset LESS length OR offset EQUAL 0)
        string(SUBSTRING "${content}" ${offset} ${kChunkLength} chunk)
        string(APPEND text "\n    R\"${delimiter}(${chunk})${delimiter}\"")
        math(EXPR offset "${offset} + ${kChunkLength}")
    endwhile()
    string(APPEND text ";\n")
endforeach()
string(APPEND text "\n} // namespace ${NAMESPACE}\n")
file(WRITE "${HEADER}" "${text}")
