# The programs: the administrator's command, and the one that the platform runs as /sbin/btrfs.

file(GLOB sources CONFIGURE_DEPENDS tools/sharesnap/*.cpp)
add_executable(sharesnap ${sources})
# A RUNPATH that CMake changes when it installs ends in an empty entry until then: the loader would look for each library
# in the working directory, too.
string(COMPARE EQUAL "${CMAKE_INSTALL_LIBDIR}" lib installed_as_built)
set_target_properties(sharesnap PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}"
                                           BUILD_WITH_INSTALL_RPATH ${installed_as_built})
target_compile_definitions(sharesnap PRIVATE SHARESNAP_VERSION="${PROJECT_VERSION}")
target_include_directories(sharesnap PRIVATE tools)
target_link_libraries(sharesnap PRIVATE qovasharesnapshot ${SHARESNAP_PLATFORM_LIBRARIES} CLI11::CLI11
                                        nlohmann_json::nlohmann_json)

file(GLOB sources CONFIGURE_DEPENDS tools/btrfs/*.cpp)
add_executable(sharesnap_btrfs ${sources})
set_target_properties(sharesnap_btrfs PROPERTIES OUTPUT_NAME btrfs
                                                 RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/libexec/sharesnap)
target_include_directories(sharesnap_btrfs PRIVATE tools)
target_link_libraries(sharesnap_btrfs PRIVATE platform_common)
