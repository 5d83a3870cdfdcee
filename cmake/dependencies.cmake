# What is taken from the system.

find_package(Threads REQUIRED)
set(Boost_NO_WARN_NEW_VERSIONS ON)
find_package(Boost 1.74 REQUIRED COMPONENTS serialization)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
if(SHARESNAP_TESTS)
    find_package(GTest REQUIRED)
endif()
if(SHARESNAP_BENCH)
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(LIBBTRFSUTIL REQUIRED IMPORTED_TARGET libbtrfsutil)
endif()
