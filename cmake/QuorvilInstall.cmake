# What `cmake --install` lays down, and the packages that CPack makes of it: the library, what is needed to develop with it,
# and the stand-ins of the sibling libraries, which a target that has the real ones leaves out.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(packageFolder "${CMAKE_INSTALL_LIBDIR}/cmake/Quorvil")

install(TARGETS Quorvil EXPORT QuorvilTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
# The siblings' headers are needed either way: QuorvilLog.h includes one.
install(TARGETS OvxLog StampGate EXPORT QuorvilTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT siblings
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
install(EXPORT QuorvilTargets NAMESPACE Quorvil:: DESTINATION "${packageFolder}" COMPONENT development)

# gdb loads a script by itself that stands below its data folder under the library's full path. That path is the configured
# one: another prefix at install time, and the script is to be loaded by hand.
install(FILES "${PROJECT_SOURCE_DIR}/gdb/libQuorvil-gdb.py" COMPONENT library
    DESTINATION "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}"
    RENAME "libQuorvil.so.${PROJECT_VERSION}-gdb.py")

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/QuorvilConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/QuorvilConfig.cmake" INSTALL_DESTINATION "${packageFolder}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QuorvilConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/QuorvilConfig.cmake" "${PROJECT_BINARY_DIR}/QuorvilConfigVersion.cmake"
    DESTINATION "${packageFolder}" COMPONENT development)

# The prefix stands relative to the file, so that an unpacked or moved package is found as well.
file(RELATIVE_PATH prefixFromPkgConfig "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" prefixFromPkgConfig "${prefixFromPkgConfig}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/quorvil.pc.in" "${PROJECT_BINARY_DIR}/quorvil.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/quorvil.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvil)
set(CPACK_PACKAGE_CONTACT "The Quorvil developers <quorvil@example.org>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
# What a debugger needs goes into packages of its own, libquorvil1-dbgsym and quorvil-siblings-dbgsym.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_LIBRARY_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_SIBLINGS_DEBUGINFO_PACKAGE ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development)
if(QUORVIL_SIBLINGS STREQUAL "bundled")
    list(APPEND CPACK_COMPONENTS_ALL siblings)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME "libquorvil${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "${PROJECT_DESCRIPTION}")
# Written by hand for every architecture: what looks for dependencies finds none when cross-building.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libsqlite3-0 (>= 3.37)")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS quorvil-siblings)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/triggers")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvil-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} - development files")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libquorvil${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libsqlite3-dev")
if(QUORVIL_SIBLINGS STREQUAL "bundled")
    string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", quorvil-siblings (= ${PROJECT_VERSION})")
endif()

set(CPACK_DEBIAN_SIBLINGS_PACKAGE_NAME quorvil-siblings)
set(CPACK_DEBIAN_SIBLINGS_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_SIBLINGS_DESCRIPTION "Stand-ins of the libraries that Quorvil is linked with on a printer")
set(CPACK_DEBIAN_SIBLINGS_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12)")
set(CPACK_DEBIAN_SIBLINGS_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/triggers")
include(CPack)
