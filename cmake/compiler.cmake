# Language levels, warnings and the variants of the build.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# One place for what is built, so that tests and people find it.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wno-format-nonliteral -Werror
                    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>)
# Paths and names are cut to buffers of documented sizes: what snprintf gives is read where that matters. g++ 12 finds
# overlaps in the standard library's own joining of strings.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-format-truncation -Wno-restrict)
endif()

# A program may define a function of ours, and everybody then calls the program's: no call between exported
# functions is bound or inlined at build time. This is the compiler's default with g++, not with clang.
# And a call stays a call, so that who stands in for a function sees who called it.
add_compile_options(-fsemantic-interposition -fno-optimize-sibling-calls)

# RUNPATH, not RPATH: LD_LIBRARY_PATH comes first, so that another platform can stand in for ours.
add_link_options(-Wl,--enable-new-dtags -Wl,-z,relro,-z,now)

if(SHARESNAP_SANITIZE)
    add_compile_options(-fsanitize=${SHARESNAP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${SHARESNAP_SANITIZE})
endif()
if(SHARESNAP_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

# The compiler cache, where there is one: paths relative to the tree, so that all build folders share it.
find_program(SHARESNAP_CCACHE ccache)
mark_as_advanced(SHARESNAP_CCACHE)
if(SHARESNAP_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(sharesnap_launcher ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
                           CCACHE_SLOPPINESS=pch_defines,time_macros ${SHARESNAP_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${sharesnap_launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${sharesnap_launcher})
endif()
