# Debian packages with CPack (`cpack -G DEB` in the build directory), one per install component:
#   libtalvoro-sdk1      the library and its udev rule
#   libtalvoro-sdk-dev   headers, pkg-config and CMake package files, examples
#   talvoro-tools        talvoro, talvoro-vcam and its preload library, documentation, man pages,
#                        bash completion
# Shared-library dependencies come from dpkg-shlibdeps, so they carry Debian's own names
# (libopencv-core406, libudev1, ...); what it cannot see is given here.
#
# Adding a package is one call, from any CMakeLists.txt:
#   talvoro_package(<component> NAME <package> SUMMARY <one line> [DESCRIPTION <text>]
#                   [SECTION <section>] [DEPENDS <debian deps>] [ARCHITECTURE all]
#                   [POSTINST <script>])
# A package with a versioned shared library gets a shlibs file; its postinst (CPack's own, or
# POSTINST, which must then run ldconfig itself) makes the dynamic linker see the library.
# and `install(... COMPONENT <component>)` for its files. The package gets the licence as its
# copyright file.

set(TALVORO_PACKAGE_CONTACT "Talvoro SDK team <sdk@talvoro.com>" CACHE STRING
    "Maintainer field of the Debian packages")

function(talvoro_package component)
  cmake_parse_arguments(ARG "" "NAME;SUMMARY;DESCRIPTION;SECTION;DEPENDS;ARCHITECTURE;POSTINST" ""
                        ${ARGN})
  if(NOT ARG_NAME OR NOT ARG_SUMMARY)
    message(FATAL_ERROR "talvoro_package(${component}) needs NAME and SUMMARY")
  endif()
  set_property(GLOBAL APPEND PROPERTY TALVORO_PACKAGES ${component})
  foreach(field NAME SUMMARY DESCRIPTION SECTION DEPENDS ARCHITECTURE POSTINST)
    set_property(GLOBAL PROPERTY TALVORO_PACKAGE_${component}_${field} "${ARG_${field}}")
  endforeach()
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${ARG_NAME}
          RENAME copyright COMPONENT ${component})
endfunction()

# The Debian package name of a component.
function(talvoro_package_name component out)
  get_property(name GLOBAL PROPERTY TALVORO_PACKAGE_${component}_NAME)
  set(${out} ${name} PARENT_SCOPE)
endfunction()

# Called once at the end of the top-level CMakeLists.txt, after every talvoro_package().
macro(talvoro_finish_packages)
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_NAME talvoro-sdk)
  set(CPACK_PACKAGE_VENDOR Talvoro)
  set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
  set(CPACK_PACKAGE_CONTACT ${TALVORO_PACKAGE_CONTACT})
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://talvoro.com/sdk")
  # libTalvoroSDK.so.1 is found in the build tree, not in an installed package.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
  get_property(TALVORO_ALL_PACKAGES GLOBAL PROPERTY TALVORO_PACKAGES)
  set(CPACK_COMPONENTS_ALL ${TALVORO_ALL_PACKAGES})
  foreach(component ${TALVORO_ALL_PACKAGES})
    string(TOUPPER ${component} upper)
    foreach(field NAME SUMMARY DESCRIPTION SECTION DEPENDS ARCHITECTURE POSTINST)
      get_property(${field} GLOBAL PROPERTY TALVORO_PACKAGE_${component}_${field})
    endforeach()
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${NAME})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${SECTION})
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${DEPENDS}")
    if(ARCHITECTURE)
      set(CPACK_DEBIAN_${upper}_PACKAGE_ARCHITECTURE ${ARCHITECTURE})
    endif()
    if(POSTINST)
      set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${POSTINST})
      set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    endif()
    # The first line of the Description field, then the long text.
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${SUMMARY}\n${DESCRIPTION}")
  endforeach()
  include(CPack)
endmacro()

set(TALVORO_DEB_VERSION "${PROJECT_VERSION}")
talvoro_package(library NAME libtalvoro-sdk1 SECTION libs
  POSTINST ${CMAKE_CURRENT_LIST_DIR}/postinst
  SUMMARY "library for the Talvoro USB time-of-flight depth camera"
  DESCRIPTION "libTalvoroSDK finds Talvoro cameras with udev, streams depth, IR and colour over V4L2, processes depth and carries every camera control. The udev rule lets the logged-in user (and the plugdev group) open the camera.")
talvoro_package(dev NAME libtalvoro-sdk-dev SECTION libdevel
  DEPENDS "libtalvoro-sdk1 (= ${TALVORO_DEB_VERSION})"
  SUMMARY "development files of TalvoroSDK"
  DESCRIPTION "The C++17 header TalvoroSDK.h, the pkg-config file talvoro-sdk.pc, the CMake package TalvoroSDK, the virtual camera's control header and two example programs.")
talvoro_package(tools NAME talvoro-tools SECTION utils
  DEPENDS "libtalvoro-sdk1 (= ${TALVORO_DEB_VERSION}), umockdev"
  SUMMARY "command-line tool and virtual camera for Talvoro depth cameras"
  DESCRIPTION "talvoro lists Talvoro cameras, reads and sets their controls, streams images and point clouds, and records and replays raw frames. talvoro-vcam runs any program with virtual Talvoro cameras plugged in.")
