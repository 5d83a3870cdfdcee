# The tests: each tests/<kind>/<name>_test.cpp is a program test_<kind>_<name>, each test in it an entry of ctest
# with the kind as its label. The programs use the shared libraries and export their own symbols, so that a function
# that a test program defines stands in for the libraries' own.

include(GoogleTest)

# A platform storage core that lives in memory and plain files, under the same soname as the real one. A test program
# runs on it when this folder comes first in LD_LIBRARY_PATH.
set(SHARESNAP_SIMULATED_DIR ${PROJECT_BINARY_DIR}/tests/simulated)
file(GLOB sources CONFIGURE_DEPENDS tests/support/simulated/*.cpp)
add_library(simulated_storagecore SHARED ${sources})
sharesnap_shared_library(simulated_storagecore)
set_target_properties(simulated_storagecore PROPERTIES OUTPUT_NAME qovastoragecore
                                                       LIBRARY_OUTPUT_DIRECTORY ${SHARESNAP_SIMULATED_DIR})
target_include_directories(simulated_storagecore PRIVATE tests)
target_link_libraries(simulated_storagecore PUBLIC sharesnap_headers PRIVATE platform_common qovacore)

file(GLOB sources CONFIGURE_DEPENDS tests/support/*.cpp)
add_library(sharesnap_test_support STATIC ${sources})
target_include_directories(sharesnap_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_compile_definitions(sharesnap_test_support
    PUBLIC SHARESNAP_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
           SHARESNAP_BUILD_DIR="${PROJECT_BINARY_DIR}"
           SHARESNAP_BOOST_VERSION=${Boost_VERSION_MACRO}
           SHARESNAP_SIMULATED_DIR="${SHARESNAP_SIMULATED_DIR}"
           SHARESNAP_SIMULATED_TOOL="${PROJECT_BINARY_DIR}/tests/programs/simulated_btrfs"
           SHARESNAP_SANDBOX_RUN="${PROJECT_BINARY_DIR}/tests/programs/sandbox_run"
           SHARESNAP_BTRFS_TOOL="${PROJECT_BINARY_DIR}/libexec/sharesnap/btrfs"
           SHARESNAP_COMMAND="${PROJECT_BINARY_DIR}/bin/sharesnap")
target_link_libraries(sharesnap_test_support
    PUBLIC sharesnap_headers GTest::gtest GTest::gmock nlohmann_json::nlohmann_json
           Threads::Threads ${CMAKE_DL_LIBS})
# googletest's macros and headers are not ours to mend.
target_compile_options(sharesnap_test_support PUBLIC $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>)
# The tests' own code need not be fast, but there is much of it to compile. (g++ 12 also takes some of the standard
# library's inlined strings for overruns when it optimises.)
target_compile_options(sharesnap_test_support PUBLIC -O0)

# googletest and the standard headers take most of a test's compile time: they are compiled once, and so with the very
# options of the programs that use them.
set_target_properties(sharesnap_test_support PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_precompile_headers(sharesnap_test_support PRIVATE <gmock/gmock.h> <gtest/gtest.h> <filesystem> <fstream> <functional>
                          <map> <memory> <optional> <sstream> <string> <thread> <vector>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(sharesnap_test_support PUBLIC -fpch-preprocess)
else()
    target_compile_options(sharesnap_test_support PUBLIC "SHELL:-Xclang -fno-pch-timestamp")
endif()

# Programs that tests and scripts start: the sandbox for any command, and what lists simulated subvolumes.
# They don't use the library of the test support, whose stand-ins for other functions are no business of theirs.
set(sandbox_sources sandbox.cpp sandbox_volume.cpp files.cpp process.cpp)
list(TRANSFORM sandbox_sources PREPEND tests/support/)
add_executable(sandbox_run tests/support/programs/sandbox_run.cpp ${sandbox_sources})
add_executable(simulated_btrfs tests/support/programs/simulated_btrfs.cpp tests/support/simulated/registry.cpp)
foreach(program sandbox_run simulated_btrfs)
    target_include_directories(${program} PRIVATE tests)
    target_compile_definitions(${program}
        PRIVATE $<TARGET_PROPERTY:sharesnap_test_support,INTERFACE_COMPILE_DEFINITIONS>)
    target_link_libraries(${program} PRIVATE ${CMAKE_DL_LIBS})
    set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/programs)
endforeach()

# What the tests of one process tree need to stand before they run.
set(runtime_targets sharesnap_btrfs simulated_storagecore sandbox_run simulated_btrfs)

set(valgrind_command "")
if(SHARESNAP_VALGRIND)
    find_program(SHARESNAP_VALGRIND_PROGRAM valgrind REQUIRED)
    set(valgrind_command ${SHARESNAP_VALGRIND_PROGRAM} --quiet --error-exitcode=99 --leak-check=full
                         --errors-for-leak-kinds=definite --child-silent-after-fork=yes --track-fds=no)
endif()

foreach(kind unit volume neighbours faults command crash consumer)
    # All programs of one kind, for a run of these alone.
    add_custom_target(tests_${kind})
    add_dependencies(tests_${kind} qovasharesnapshot ${runtime_targets})
    if(kind MATCHES "command|consumer|crash|neighbours")
        add_dependencies(tests_${kind} sharesnap)
    endif()
    file(GLOB sources CONFIGURE_DEPENDS tests/${kind}/*_test.cpp)
    foreach(source IN LISTS sources)
        cmake_path(GET source STEM name)
        string(REGEX REPLACE "_test$" "" name ${name})
        set(program test_${kind}_${name})
        add_executable(${program} ${source})
        set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/${kind}
                                                    ENABLE_EXPORTS ON DEFINE_SYMBOL "" POSITION_INDEPENDENT_CODE OFF
                                                    CROSSCOMPILING_EMULATOR "${valgrind_command}")
        target_precompile_headers(${program} REUSE_FROM sharesnap_test_support)
        target_link_options(${program} PRIVATE -Wl,--no-as-needed)
        target_link_libraries(${program} PRIVATE sharesnap_test_support qovasharesnapshot ${SHARESNAP_PLATFORM_LIBRARIES})
        add_dependencies(tests_${kind} ${program})
        add_dependencies(${program} ${runtime_targets})
        if(kind MATCHES "command|crash|neighbours")
            add_dependencies(${program} sharesnap)
        endif()
        gtest_discover_tests(${program} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120 TEST_PREFIX "${kind}/${name}/"
                             PROPERTIES LABELS ${kind} TIMEOUT 900 SKIP_RETURN_CODE 77)
    endforeach()
endforeach()

# Fuzz targets, see tests/fuzz/fuzz.hpp. The corpus is the folder of tests/data that the name begins with.
add_custom_target(tests_fuzz)
file(GLOB sources CONFIGURE_DEPENDS tests/fuzz/*_fuzz.cpp)
foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    string(REGEX REPLACE "_fuzz$" "" name ${name})
    string(REGEX REPLACE "_.*" "" corpus ${name})
    set(corpus ${PROJECT_SOURCE_DIR}/tests/data/${corpus})
    set(program test_fuzz_${name})
    add_executable(${program} ${source})
    set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/fuzz
                                                ENABLE_EXPORTS ON DEFINE_SYMBOL "" POSITION_INDEPENDENT_CODE OFF)
    target_compile_definitions(${program} PRIVATE SHARESNAP_FUZZ_CORPUS="${corpus}")
    target_link_options(${program} PRIVATE -Wl,--no-as-needed)
    target_link_libraries(${program} PRIVATE sharesnap_test_support qovasharesnapshot ${SHARESNAP_PLATFORM_LIBRARIES})
    add_dependencies(tests_fuzz ${program})
    if(SHARESNAP_SANITIZE MATCHES "fuzzer")
        target_link_options(${program} PRIVATE -fsanitize=fuzzer)
        set(arguments -runs=0 ${corpus})
    else()
        target_sources(${program} PRIVATE tests/fuzz/replay.cpp)
        set(arguments ${corpus})
    endif()
    add_test(NAME fuzz/${name}/Corpus COMMAND ${valgrind_command} $<TARGET_FILE:${program}> ${arguments})
    set_tests_properties(fuzz/${name}/Corpus PROPERTIES LABELS fuzz TIMEOUT 300 SKIP_RETURN_CODE 77)
endforeach()

include(contract_tests)
