# cmake --install: the public headers, the library, a CMake package (find_package(qob) gives
# qob::qob), a pkg-config file and the licence (the tool and its man page: tools/qob).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QOB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qob)

install(TARGETS qob EXPORT qobTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/qob/qob.h ${PROJECT_SOURCE_DIR}/include/qob/qob_ext.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qob)
install(EXPORT qobTargets NAMESPACE qob:: DESTINATION ${QOB_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qobConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/qobConfig.cmake
                              INSTALL_DESTINATION ${QOB_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qobConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qobConfig.cmake ${PROJECT_BINARY_DIR}/qobConfigVersion.cmake
        DESTINATION ${QOB_CMAKE_DIR})

# pkg-config: paths relative to the prefix the package ends up in, so the tree can move.
file(RELATIVE_PATH QOB_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/qob.pc.in ${PROJECT_BINARY_DIR}/qob.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qob.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The licence travels with every form of the library: the CMake package and the archives get
# LICENSE; on Linux the documentation directory also gets it as "copyright", where Debian's
# tools and users look for it.
if(WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION .)
else()
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR}
          RENAME copyright)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${QOB_CMAKE_DIR})
