# What is taken from the system.

find_package(Threads REQUIRED)
set(Boost_NO_WARN_NEW_VERSIONS ON)
# As a static library, where there is one: the snapshot library needs a small part of it, and every program that loads
# the snapshot library would load and link the whole at its start. With g++ only: the library may hold code for programs
# alone in a few templates, whose place the ones of ours take, and clang without optimisation groups those otherwise.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(Boost_USE_STATIC_LIBS ON)
    find_package(Boost 1.74 QUIET COMPONENTS serialization)
endif()
if(NOT Boost_SERIALIZATION_FOUND)
    set(Boost_USE_STATIC_LIBS OFF)
    find_package(Boost 1.74 REQUIRED COMPONENTS serialization)
endif()
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
if(SHARESNAP_TESTS)
    find_package(GTest REQUIRED)
endif()
if(SHARESNAP_BENCH)
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(LIBBTRFSUTIL REQUIRED IMPORTED_TARGET libbtrfsutil)
endif()
