# Installation: headers, libqkUtil.so, the tools, a CMake package
# (find_package(qkUtil) -> qkUtil::qkUtil) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS qkUtil EXPORT qkUtilTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qkUtil)
install(DIRECTORY qkUtil.m/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qkUtil
        FILES_MATCHING PATTERN "*.h")
# The host's hash table, which qkStringHashTable derives from; the library
# carries the stand-in's code.
install(FILES KorSysTS.m/include/KorSysSimpleHashTable.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qkUtil)
install(EXPORT qkUtilTargets NAMESPACE qkUtil:: FILE qkUtilTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qkUtil)

configure_package_config_file(cmake/qkUtilConfig.cmake.in
        ${CMAKE_CURRENT_BINARY_DIR}/qkUtilConfig.cmake
        INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qkUtil)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qkUtilConfigVersion.cmake
        COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qkUtilConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qkUtilConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qkUtil)

configure_file(cmake/qkUtil.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qkUtil.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qkUtil.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
