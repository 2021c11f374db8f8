include(CMakePackageConfigHelpers)

install(TARGETS palomir EXPORT palomirTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/palomir" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET palomir-qt)
  install(TARGETS palomir-qt EXPORT palomirTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(EXPORT palomirTargets NAMESPACE palomir:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/palomir)
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/palomirConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/palomirConfig.cmake"
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/palomir)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/palomirConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/palomirConfig.cmake" "${PROJECT_BINARY_DIR}/palomirConfigVersion.cmake"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/palomir)

configure_file("${CMAKE_CURRENT_LIST_DIR}/palomir.pc.in" "${PROJECT_BINARY_DIR}/palomir.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/palomir.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Whoever redistributes the package needs its licence and the notices of
# what it links.
install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" "${PROJECT_SOURCE_DIR}/THIRD-PARTY-NOTICES.md"
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/palomir)
