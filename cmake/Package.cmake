# cpack: a binary distribution of what cmake --install puts in place, without a top
# directory: qob-<version>-win64.zip from the Windows build, a .tar.gz from the Linux one, and
# with cpack -G DEB a Debian package.
if(WIN32)
  set(QOB_PACKAGE_SYSTEM win64)
  set(CPACK_GENERATOR ZIP)
  set(QOB_README_DESTINATION .)
else()
  string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" QOB_PACKAGE_SYSTEM)
  set(CPACK_GENERATOR TGZ)
  set(QOB_README_DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${QOB_README_DESTINATION})

set(CPACK_PACKAGE_NAME qob)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Create, inspect and edit image packages")
set(CPACK_PACKAGE_FILE_NAME qob-${PROJECT_VERSION}-${QOB_PACKAGE_SYSTEM})
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(QOB_PACKAGE_MAINTAINER "the qob developers <qob@invalid>"
    CACHE STRING "Maintainer named in the Debian package")
set(CPACK_PACKAGE_CONTACT ${QOB_PACKAGE_MAINTAINER})

# The .deb: the library, the tool, the headers and the CMake and pkg-config files in /usr.
# Its dependencies (libc, libstdc++, zlib, libdeflate where it was linked) come from what the
# binaries link, through dpkg-shlibdeps.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${QOB_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGE_DESCRIPTION
    "qob bundles a raw camera image with its settings, proxy, profiles and masks in one zip file whose entries are rewritten in place. This package holds libqob, its headers, the qob command-line tool and its reference documentation.")
# The package's own library directory: dpkg-shlibdeps resolves the tool's libqob.so.0 there.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
include(CPack)
