# Lays the Markdown out as a receiver reads it: what the site quotes from the examples stands in it as
# code, and links to files that an archive has elsewhere lead there. Runs at install time:
#   cmake -D SOURCE=<the tree> -D TARGET=<folder>/doc -D EXAMPLES=<of them, seen from TARGET> -P ...

cmake_minimum_required(VERSION 3.25)

# The lines of an example between two of its lines with [name], without their indentation.
function(read_quoted example name result)
    file(READ "${SOURCE}/examples/${example}" text)
    # What is before the first and behind the last mark goes, with the marks' own lines.
    set(mark "[${name}]")
    string(FIND "${text}" "${mark}" first)
    string(FIND "${text}" "${mark}" last REVERSE)
    if(first EQUAL last)
        message(FATAL_ERROR "${example} has no two lines ${mark}")
    endif()
    string(SUBSTRING "${text}" 0 ${last} text)
    string(SUBSTRING "${text}" ${first} -1 text)
    string(FIND "${text}" "\n" begin)
    string(FIND "${text}" "\n" end REVERSE)
    math(EXPR size "${end} - ${begin}")
    string(SUBSTRING "${text}" ${begin} ${size} text)
    string(REGEX REPLACE "^\n+" "\n" text "${text}")
    string(REGEX MATCH "^\n( *)" first "${text}")
    string(REPLACE "${first}" "\n" text "${text}\n")
    string(REGEX REPLACE "\n\n+$" "\n" text "${text}")
    set(${result} "${text}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE pages RELATIVE "${SOURCE}/docs" "${SOURCE}/docs/*.md")
foreach(page IN LISTS pages)
    file(READ "${SOURCE}/docs/${page}" text)
    while(text MATCHES "<!-- \\\\snippet{trimleft} ([a-z_]+\\.cpp) ([^\n]*) -->")
        set(placeholder "${CMAKE_MATCH_0}")
        read_quoted("${CMAKE_MATCH_1}" "${CMAKE_MATCH_2}" quoted)
        string(REPLACE "${placeholder}" "```cpp${quoted}```" text "${text}")
    endwhile()
    string(REGEX REPLACE "\\]\\((\\.\\./)+examples/" "](@up@${EXAMPLES}/" text "${text}")
    string(REGEX REPLACE "\\]\\((\\.\\./)+CHANGELOG\\.md" "](@up@CHANGELOG.md" text "${text}")
    string(REGEX REPLACE "\\[([^]\n]*)\\]\\(\\.\\./CONTRIBUTING\\.md\\)" "\\1" text "${text}") # of the sources alone
    # From a page below, one folder up first.
    set(up "")
    if(page MATCHES "/")
        set(up "../")
    endif()
    string(REPLACE "@up@" "${up}" text "${text}")
    file(WRITE "${TARGET}/${page}" "${text}")
endforeach()
file(COPY "${SOURCE}/docs/guide/threads.svg" DESTINATION "${TARGET}/guide")
file(COPY "${SOURCE}/docs/sheet.png" DESTINATION "${TARGET}")
file(READ "${SOURCE}/CHANGELOG.md" text)
string(REPLACE "](docs/" "](" text "${text}")
file(WRITE "${TARGET}/CHANGELOG.md" "${text}")
