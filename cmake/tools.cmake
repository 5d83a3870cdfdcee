# The programs: the administrator's command, and the one that the platform runs as /sbin/btrfs.

file(GLOB sources CONFIGURE_DEPENDS tools/sharesnap/*.cpp)
add_executable(sharesnap ${sources})
# One RUNPATH for the build folder, whose libraries are in lib, and for the installed program. One that CMake changes when
# it installs ends in an empty entry until then: the loader would look for each library in the working directory, too.
set(library_folders "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}" "$ORIGIN/../lib")
list(REMOVE_DUPLICATES library_folders)
set_target_properties(sharesnap PROPERTIES INSTALL_RPATH "${library_folders}" BUILD_WITH_INSTALL_RPATH ON)
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
