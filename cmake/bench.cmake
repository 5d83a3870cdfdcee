# The benchmarks: each bench/<name>.cpp is a program bench_<name>. They run in the sandbox of the tests.

if(NOT SHARESNAP_TESTS)
    return()
endif()
file(GLOB sources CONFIGURE_DEPENDS bench/common/*.cpp)
add_library(sharesnap_bench_support STATIC ${sources})
set_target_properties(sharesnap_bench_support PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_include_directories(sharesnap_bench_support PUBLIC bench)
target_link_libraries(sharesnap_bench_support PUBLIC sharesnap_test_support)

file(GLOB sources CONFIGURE_DEPENDS bench/*.cpp)
foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    add_executable(bench_${name} ${source})
    # As in the tests, a function that the program defines stands in for the libraries' own.
    set_target_properties(bench_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench
                                                   ENABLE_EXPORTS ON POSITION_INDEPENDENT_CODE OFF)
    target_link_libraries(bench_${name} PRIVATE sharesnap_bench_support qovasharesnapshot
                                                ${SHARESNAP_PLATFORM_LIBRARIES} PkgConfig::LIBBTRFSUTIL
                                                Threads::Threads)
    add_dependencies(bench_${name} sharesnap sharesnap_btrfs)
endforeach()
