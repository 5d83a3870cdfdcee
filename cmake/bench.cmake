# The benchmarks: each bench/<name>.cpp is a program bench_<name>. They run in the sandbox of the tests.

if(NOT SHARESNAP_TESTS)
    return()
endif()
# Of the test support only what makes the sandbox and a share in it, compiled as the library is: the rest stands in for
# functions of the C library, which would be measured along.
set(sources fixtures.cpp sandbox.cpp sandbox_volume.cpp files.cpp process.cpp)
list(TRANSFORM sources PREPEND tests/support/)
file(GLOB own_sources CONFIGURE_DEPENDS bench/common/*.cpp)
add_library(sharesnap_bench_support STATIC ${own_sources} ${sources})
set_target_properties(sharesnap_bench_support PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_include_directories(sharesnap_bench_support PUBLIC bench tests)
target_compile_definitions(sharesnap_bench_support
    PUBLIC $<TARGET_PROPERTY:sharesnap_test_support,INTERFACE_COMPILE_DEFINITIONS>)
target_link_libraries(sharesnap_bench_support PUBLIC sharesnap_headers GTest::gtest ${CMAKE_DL_LIBS})

file(GLOB sources CONFIGURE_DEPENDS bench/*.cpp)
foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    add_executable(bench_${name} ${source})
    # As in the tests, a function that the program defines stands in for the libraries' own.
    set_target_properties(bench_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench
                                                   ENABLE_EXPORTS ON POSITION_INDEPENDENT_CODE OFF)
    # A release has no checks of the archive headers in it, on either side.
    target_compile_definitions(bench_${name} PRIVATE $<$<NOT:$<CONFIG:Debug>>:NDEBUG>)
    target_link_libraries(bench_${name} PRIVATE sharesnap_bench_support qovasharesnapshot
                                                ${SHARESNAP_PLATFORM_LIBRARIES} PkgConfig::LIBBTRFSUTIL
                                                Boost::serialization Threads::Threads)
    add_dependencies(bench_${name} sharesnap sharesnap_btrfs)
endforeach()
