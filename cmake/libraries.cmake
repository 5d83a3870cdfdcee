# The platform's seven libraries and the snapshot library on top of them.
#
# Include roots: include/ and the build folder's include/ for <sharesnap/...> (the latter has <sharesnap/platform/...>,
# as an installed tree has it), lib/ for the library's private headers, platform/ for those of the platform.

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/sharesnap)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/lib/platform ${PROJECT_BINARY_DIR}/include/sharesnap/platform SYMBOLIC)

add_library(sharesnap_headers INTERFACE)
set_target_properties(sharesnap_headers PROPERTIES EXPORT_NAME headers)
target_include_directories(sharesnap_headers INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                       $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
                                                       $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

if(SHARESNAP_BUILD_TREE_TOOLS)
    set(SHARESNAP_LIBEXECDIR ${PROJECT_BINARY_DIR}/libexec/sharesnap)
else()
    set(SHARESNAP_LIBEXECDIR ${CMAKE_INSTALL_FULL_LIBEXECDIR}/sharesnap)
endif()

# sharesnap_shared_library(NAME): what all our shared libraries have in common.
function(sharesnap_shared_library name)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                             CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden
                                             VISIBILITY_INLINES_HIDDEN ON
                                             INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON)
    target_link_options(${name} PRIVATE -Wl,--as-needed)
    if(NOT SHARESNAP_SANITIZE)
        target_link_options(${name} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()

# What several platform libraries use. It is no library of its own: each takes in what it needs, hidden.
file(GLOB sources CONFIGURE_DEPENDS platform/common/*.cpp)
add_library(platform_common STATIC ${sources})
set_target_properties(platform_common PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(platform_common PUBLIC platform)
target_link_libraries(platform_common PUBLIC sharesnap_headers Threads::Threads ${CMAKE_DL_LIBS})

# sharesnap_platform_library(NAME [LINKS library...]): one folder under platform/, one shared library.
set(SHARESNAP_PLATFORM_LIBRARIES "")
function(sharesnap_platform_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINKS")
    file(GLOB sources CONFIGURE_DEPENDS platform/${name}/*.cpp)
    add_library(${name} SHARED ${sources})
    sharesnap_shared_library(${name})
    target_include_directories(${name} PRIVATE platform)
    target_link_libraries(${name} PUBLIC sharesnap_headers PRIVATE platform_common ${arg_LINKS})
    set(SHARESNAP_PLATFORM_LIBRARIES ${SHARESNAP_PLATFORM_LIBRARIES} ${name} PARENT_SCOPE)
endfunction()

sharesnap_platform_library(qovacore)
sharesnap_platform_library(qovastoragecore LINKS qovacore)
sharesnap_platform_library(qovasdk LINKS qovacore qovastoragecore)
sharesnap_platform_library(qovafileop LINKS qovacore)
sharesnap_platform_library(qovaquota LINKS qovacore qovastoragecore)
sharesnap_platform_library(qovasysnotify LINKS qovacore)
sharesnap_platform_library(qovanetsdk LINKS qovacore)

# Where the platform finds the program that it runs for the name /sbin/btrfs.
target_compile_definitions(qovacore PRIVATE SHARESNAP_BTRFS_TOOL="${SHARESNAP_LIBEXECDIR}/btrfs")

# One room, one object library; all rooms together are the shared library.
set(room_objects "")
foreach(room intl_utils frame metadata lifecycle counters config snaptree)
    file(GLOB sources CONFIGURE_DEPENDS lib/${room}/*.cpp)
    if(NOT sources) # a room of headers alone
        continue()
    endif()
    add_library(sharesnap_${room} OBJECT ${sources})
    set_target_properties(sharesnap_${room} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    target_include_directories(sharesnap_${room} PRIVATE lib)
    target_link_libraries(sharesnap_${room} PUBLIC sharesnap_headers)
    list(APPEND room_objects $<TARGET_OBJECTS:sharesnap_${room}>)
endforeach()
target_link_libraries(sharesnap_snaptree PUBLIC Boost::serialization)
# A file that ends in its header is refused with an exception, not with an abort; and without NDEBUG the archive's headers
# look up the type of the archive for every item.
target_compile_definitions(sharesnap_snaptree PRIVATE BOOST_DISABLE_ASSERTS $<$<NOT:$<CONFIG:Debug>>:NDEBUG>)

# The linker's version script: the C symbols of lib/exports.txt and the tree's classes; the rest is local.
set(exports_list ${PROJECT_SOURCE_DIR}/lib/exports.txt)
set(exports_script ${PROJECT_BINARY_DIR}/exports.map)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${exports_list})
file(STRINGS ${exports_list} exported_names REGEX "^[A-Za-z_]")
set(exported_symbols "")
foreach(symbol IN LISTS exported_names)
    string(APPEND exported_symbols "        ${symbol};\n")
endforeach()
file(CONFIGURE OUTPUT ${exports_script} CONTENT [[
{
    global:
@exported_symbols@
        extern "C++" {
            QovaSnapTree::*;
        };
        # Their tables and type information, which have a space in the name and so no pattern in C++.
        _ZT[ISTV]N12QovaSnapTree*;
    local:
        *;
};
]] @ONLY)

add_library(qovasharesnapshot SHARED ${room_objects})
sharesnap_shared_library(qovasharesnapshot)
set_target_properties(qovasharesnapshot PROPERTIES LINKER_LANGUAGE CXX LINK_DEPENDS ${exports_script})
target_link_options(qovasharesnapshot PRIVATE -Wl,--version-script=${exports_script})
# Callers fetch share records, lists and hashes from the platform themselves.
target_link_libraries(qovasharesnapshot PUBLIC sharesnap_headers ${SHARESNAP_PLATFORM_LIBRARIES}
                                        PRIVATE Boost::serialization Threads::Threads)
