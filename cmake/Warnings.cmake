# norvex_warnings: what the project's own code must compile without; inside another project, whose
# compiler may be another, it only warns. Third-party headers come in as system headers.

add_library(norvex_warnings INTERFACE)

if(MSVC)
    target_compile_options(norvex_warnings INTERFACE
        /W4 /permissive- /utf-8 /Zc:__cplusplus /Zc:preprocessor
        /external:anglebrackets /external:W0
        /wd4250  # dominance through a virtual base: reference counting is inherited that way
        /wd4611) # setjmp beside destructors: functions with libpng's have no object that has one
else()
    target_compile_options(norvex_warnings INTERFACE
        -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast)
endif()
if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(norvex_warnings INTERFACE $<IF:$<CXX_COMPILER_ID:MSVC>,/WX,-Werror>)
endif()
