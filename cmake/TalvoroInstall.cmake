# What `cmake --install` puts where, by package component (see TalvoroPackaging.cmake):
#   library  libTalvoroSDK.so.1 and the udev rule
#   dev      the headers, the .so link, pkg-config and CMake package files, the examples
#   tools    talvoro, talvoro-vcam and its preload, their documentation, man pages, completion
# (the programs install themselves in tools/ and vcam/).
include(CMakePackageConfigHelpers)

# The CMake package carries the include directory once: from the target's INSTALL_INTERFACE.
install(TARGETS TalvoroSDK EXPORT TalvoroSDKTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)
install(FILES include/TalvoroSDK.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT TalvoroSDKTargets NAMESPACE TalvoroSDK::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoroSDK COMPONENT dev)
configure_package_config_file(cmake/TalvoroSDKConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TalvoroSDKConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoroSDK)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TalvoroSDKConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TalvoroSDKConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TalvoroSDKConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TalvoroSDK COMPONENT dev)
# The .pc file locates its prefix from its own place, so an installed tree can be moved.
file(RELATIVE_PATH TALVORO_PC_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/talvoro-sdk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/talvoro-sdk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talvoro-sdk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libtalvoro-sdk-dev/examples
        COMPONENT dev)

install(FILES cmake/60-talvoro.rules DESTINATION ${TALVORO_UDEV_RULES_DIR} COMPONENT library)
