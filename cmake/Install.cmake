# Installs the library: its public headers, itself, and what find_package and pkg-config need to find it.

# Every header of the library is public but those of the machine's back ends and of the inner workings of stages.
file(GLOB_RECURSE ZELLIVE_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/zellive/*.h)
list(FILTER ZELLIVE_PUBLIC_HEADERS EXCLUDE REGEX
  "/zellive/(platform/(linux/.*|DeliveryGate\\.h|PcmFormat\\.h)|transport/(AbortSwitch|HostResolver|Librtmp.*|RtmpMetadata|RtmpUrl|TcpDialer)\\.h|capture/FitSizePainter\\.h|session/FormattedText\\.h)$")

target_sources(zellive PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ZELLIVE_PUBLIC_HEADERS})
install(TARGETS zellive EXPORT zelliveTargets FILE_SET HEADERS
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(ZELLIVE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zellive)
install(EXPORT zelliveTargets NAMESPACE zellive:: DESTINATION ${ZELLIVE_CMAKE_DIR})
# The library is shared and its headers need no other package, so the exported targets are the whole configuration.
file(WRITE ${PROJECT_BINARY_DIR}/zelliveConfig.cmake "include(\${CMAKE_CURRENT_LIST_DIR}/zelliveTargets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelliveConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelliveConfig.cmake ${PROJECT_BINARY_DIR}/zelliveConfigVersion.cmake
  DESTINATION ${ZELLIVE_CMAKE_DIR})

# Relative to the file itself, so that an installed tree may be moved.
file(RELATIVE_PATH ZELLIVE_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zellive.pc.in ${PROJECT_BINARY_DIR}/zellive.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zellive.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${ZELLIVE_RNNOISE_DIR}/COPYING DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME COPYING.rnnoise)
