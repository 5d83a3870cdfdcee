# What an installed tree holds.

include(CMakePackageConfigHelpers)

install(TARGETS sharesnap_headers qovasharesnapshot ${SHARESNAP_PLATFORM_LIBRARIES} EXPORT qovasharesnapshotTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/sharesnap DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN *.h PATTERN *.hpp)
install(DIRECTORY lib/platform/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sharesnap/platform FILES_MATCHING PATTERN *.h)

install(TARGETS sharesnap DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS sharesnap_btrfs DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/sharesnap)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qovasharesnapshot)
install(EXPORT qovasharesnapshotTargets NAMESPACE qovasharesnapshot:: DESTINATION ${package_dir})
configure_package_config_file(packaging/cmake/qovasharesnapshotConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/qovasharesnapshotConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qovasharesnapshotConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qovasharesnapshotConfig.cmake
              ${PROJECT_BINARY_DIR}/qovasharesnapshotConfigVersion.cmake DESTINATION ${package_dir})

# The prefix in the pkg-config file is the file's own place, so that the tree can be installed or unpacked anywhere.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
           OUTPUT_VARIABLE pc_prefix)
list(TRANSFORM SHARESNAP_PLATFORM_LIBRARIES PREPEND -l OUTPUT_VARIABLE pc_platform)
list(JOIN pc_platform " " pc_platform)
configure_file(packaging/pkgconfig/qovasharesnapshot.pc.in ${PROJECT_BINARY_DIR}/qovasharesnapshot.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qovasharesnapshot.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# These two are read from fixed places below the prefix.
install(FILES packaging/tmpfiles.d/sharesnap.conf DESTINATION lib/tmpfiles.d)
file(GLOB catalogs CONFIGURE_DEPENDS packaging/catalog/*.catalog)
if(catalogs)
    install(FILES ${catalogs} DESTINATION lib/systemd/catalog)
endif()
