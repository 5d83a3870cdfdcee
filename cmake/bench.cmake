# The benchmarks: each bench/<name>.cpp is a program bench_<name>.

if(NOT TARGET qovasharesnapshot)
    return()
endif()
file(GLOB sources CONFIGURE_DEPENDS bench/*.cpp)
foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    add_executable(bench_${name} ${source})
    set_target_properties(bench_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
    target_compile_definitions(bench_${name} PRIVATE SHARESNAP_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                                     SHARESNAP_BUILD_DIR="${PROJECT_BINARY_DIR}"
                                                     SHARESNAP_COMMAND="${PROJECT_BINARY_DIR}/bin/sharesnap")
    target_include_directories(bench_${name} PRIVATE bench tests)
    target_link_libraries(bench_${name} PRIVATE qovasharesnapshot ${SHARESNAP_PLATFORM_LIBRARIES}
                                                PkgConfig::LIBBTRFSUTIL Threads::Threads)
endforeach()
