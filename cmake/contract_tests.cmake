# What others build against: the exported symbols, headers that stand alone, and an installed tree.

add_test(NAME unit/exports/ListAndLibraryAgree
         COMMAND bash ${PROJECT_SOURCE_DIR}/tests/unit/exports.sh ${CMAKE_NM} $<TARGET_FILE:qovasharesnapshot>
                 ${PROJECT_SOURCE_DIR}/lib/exports.txt)
set_tests_properties(unit/exports/ListAndLibraryAgree PROPERTIES LABELS unit TIMEOUT 60)

# header_compiles_alone(SPELLING LANGUAGE STANDARD): a source with nothing but the header goes through the compiler.
function(header_compiles_alone spelling language standard)
    string(REGEX REPLACE "[/.]" "_" stem ${spelling})
    set(source ${PROJECT_BINARY_DIR}/headers/${stem}.${standard}.txt)
    file(CONFIGURE OUTPUT ${source} CONTENT "#include <${spelling}>\nextern int sharesnap_not_empty;\n")
    if(language STREQUAL "c")
        set(compiler ${CMAKE_C_COMPILER})
    else()
        set(compiler ${CMAKE_CXX_COMPILER})
    endif()
    set(name unit/headers/${spelling}.${standard})
    add_test(NAME ${name} COMMAND ${compiler} -x ${language} -std=${standard} -Wall -Wextra -pedantic -Werror -fsyntax-only
                                  -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_BINARY_DIR}/include ${source})
    set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT 60)
endfunction()

file(GLOB public_headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/include include/sharesnap/*.h
                                                                                  include/sharesnap/*.hpp)
file(GLOB platform_headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/lib lib/platform/*.h)
list(TRANSFORM platform_headers PREPEND sharesnap/)
foreach(header IN LISTS public_headers platform_headers)
    if(NOT header MATCHES "\\.hpp$")
        header_compiles_alone(${header} c c11)
    endif()
    header_compiles_alone(${header} c++ c++17)
endforeach()

# Sanitizers' and coverage's libraries want more from who links them than a package file says.
if(NOT SHARESNAP_SANITIZE AND NOT SHARESNAP_COVERAGE AND NOT SHARESNAP_VALGRIND)
    foreach(way pkg-config cmake)
        set(name consumer/installed/Builds_with_${way})
        add_test(NAME ${name} COMMAND bash ${PROJECT_SOURCE_DIR}/tests/consumer/installed.sh ${way} ${PROJECT_BINARY_DIR}
                                      ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
        # Two installations at a time would write one list of what was installed.
        set_tests_properties(${name} PROPERTIES LABELS consumer TIMEOUT 300 RESOURCE_LOCK install SKIP_RETURN_CODE 77)
    endforeach()
endif()
