# What an installation holds: both libraries, headers, the message catalogue, the command with its man page and
# completion, and what find_package and pkg-config need. Every file finds the others by their place relative to itself,
# so that an installed tree can be moved.
include(CMakePackageConfigHelpers)

set(VEKSYS_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/veksys)

install(TARGETS veksys veksys_static EXPORT veksysTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/veksys ${VEKSYS_PUBLIC_GENERATED}/veksys DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN "*.def")
install(FILES ${VEKSYS_MESSAGES} DESTINATION ${CMAKE_INSTALL_DATADIR}/veksys/locale/en_US)

install(EXPORT veksysTargets NAMESPACE veksys:: DESTINATION ${VEKSYS_INSTALL_CMAKE})
configure_package_config_file(cmake/veksysConfig.cmake.in ${CMAKE_BINARY_DIR}/veksysConfig.cmake
                              INSTALL_DESTINATION ${VEKSYS_INSTALL_CMAKE})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/veksysConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/veksysConfig.cmake ${CMAKE_BINARY_DIR}/veksysConfigVersion.cmake
        DESTINATION ${VEKSYS_INSTALL_CMAKE})

file(RELATIVE_PATH VEKSYS_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH VEKSYS_LIBDIR_FROM_PREFIX ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH VEKSYS_INCLUDEDIR_FROM_PREFIX ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/veksys.pc.in ${CMAKE_BINARY_DIR}/veksys.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/veksys.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(VEKSYS_TOOLS)
  install(TARGETS veksys_command DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES tools/veksys/veksys.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES tools/veksys/veksys.lnav.json DESTINATION ${CMAKE_INSTALL_DATADIR}/veksys)
  install(FILES tools/veksys/veksys.lnav.json DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/lnav/formats/veksys) # where lnav looks
  install(FILES tools/veksys/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME veksys)
endif()
