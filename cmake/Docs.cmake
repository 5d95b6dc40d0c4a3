# The reference documentation: Doxygen (Debian's doxygen) over the public headers, built with
# everything else when Doxygen is there. A warning (a name or parameter left undocumented)
# fails the target.
option(QOB_BUILD_DOCS "Build the reference documentation with Doxygen" ON)
if(NOT QOB_BUILD_DOCS)
  return()
endif()
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
  message(STATUS "qob: reference documentation skipped (no doxygen)")
  return()
endif()
set(QOB_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
file(GLOB QOB_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/qob/*.h)
add_custom_command(OUTPUT ${QOB_DOCS_OUTPUT}/html/index.html
                   COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile
                   DEPENDS ${PROJECT_BINARY_DIR}/Doxyfile ${QOB_PUBLIC_HEADERS}
                           ${PROJECT_SOURCE_DIR}/docs/reference.md
                   COMMENT "Reference documentation (Doxygen)" VERBATIM)
add_custom_target(qob_docs ALL DEPENDS ${QOB_DOCS_OUTPUT}/html/index.html)
include(GNUInstallDirs)
install(DIRECTORY ${QOB_DOCS_OUTPUT}/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/reference)
