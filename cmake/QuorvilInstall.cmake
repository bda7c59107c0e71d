# What `cmake --install` lays down: the libraries, the public headers under their own folders, and the package files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(packageFolder "${CMAKE_INSTALL_LIBDIR}/cmake/Quorvil")

install(TARGETS Quorvil OvxLog StampGate
    EXPORT QuorvilTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT QuorvilTargets NAMESPACE Quorvil:: DESTINATION "${packageFolder}")

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/QuorvilConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/QuorvilConfig.cmake" INSTALL_DESTINATION "${packageFolder}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QuorvilConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/QuorvilConfig.cmake" "${PROJECT_BINARY_DIR}/QuorvilConfigVersion.cmake"
    DESTINATION "${packageFolder}")
