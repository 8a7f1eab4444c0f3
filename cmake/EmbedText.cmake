# norvex_embed_text(TARGET <target> NAMESPACE <ns> HEADER <name.h> FILES <file>...)
#
# Makes a header with one `inline constexpr std::string_view k<FileName>` for each file
# (ImagePixel.hlsl becomes kImagePixel) and puts its folder on the target's private include path:
# #include <name.h>. A changed file remakes the header.

add_custom_target(norvex_generated COMMENT "Sources that the build makes")

function(norvex_embed_text)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "TARGET;NAMESPACE;HEADER" "FILES")
    set(outputFolder "${CMAKE_CURRENT_BINARY_DIR}/embedded/${arg_TARGET}")
    set(header "${outputFolder}/${arg_HEADER}")
    list(TRANSFORM arg_FILES REPLACE "^([^/].*)$" "${CMAKE_CURRENT_SOURCE_DIR}/\\1" OUTPUT_VARIABLE files)
    list(JOIN files "|" joined)
    add_custom_command(
        OUTPUT "${header}"
        COMMAND "${CMAKE_COMMAND}" "-DHEADER=${header}" "-DNAMESPACE=${arg_NAMESPACE}" "-DFILES=${joined}"
                -P "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/EmbedTextScript.cmake"
        DEPENDS ${files} "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/EmbedTextScript.cmake"
        COMMENT "Embedding ${arg_HEADER}"
        VERBATIM)
    add_custom_target(${arg_TARGET}_${arg_HEADER} DEPENDS "${header}")
    add_dependencies(norvex_generated ${arg_TARGET}_${arg_HEADER})
    target_sources(${arg_TARGET} PRIVATE "${header}")
    target_include_directories(${arg_TARGET} PRIVATE "${outputFolder}")
endfunction()
