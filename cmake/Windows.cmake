# Windows: qob.dll's export table comes from src/api/qob.def, where QOB_SetLogFn is exported
# under the name MSVC gives it. Both import libraries are made from that file:
#  - qob.lib, for hosts linked with link.exe or lld-link (the MSVC name as is);
#  - libqob.dll.a, for MinGW hosts, whose compilers decorate QOB_SetLogFn the Itanium way: it
#    maps that name to the MSVC one. It replaces the one the linker writes.
# Included from the directory that makes the qob target.
include(GNUInstallDirs)

set(QOB_DEF_FILE ${PROJECT_SOURCE_DIR}/src/api/qob.def)
target_sources(qob PRIVATE ${QOB_DEF_FILE})

find_program(QOB_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
find_program(QOB_MINGW_DLLTOOL NAMES x86_64-w64-mingw32-dlltool)
if(NOT QOB_LLVM_DLLTOOL OR NOT QOB_MINGW_DLLTOOL)
  message(FATAL_ERROR "the import libraries need llvm-dlltool and x86_64-w64-mingw32-dlltool")
endif()

# "EXPORTED = INTERNAL" (link the DLL) becomes "INTERNAL == EXPORTED" (import as INTERNAL).
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${QOB_DEF_FILE})
file(READ ${QOB_DEF_FILE} QOB_DEF_TEXT)
string(REGEX REPLACE "([^ \n]+) = ([^ \n]+)" "\\2 == \\1" QOB_DEF_TEXT "${QOB_DEF_TEXT}")
set(QOB_MINGW_DEF_FILE ${PROJECT_BINARY_DIR}/qob-mingw.def)
file(WRITE ${QOB_MINGW_DEF_FILE} "${QOB_DEF_TEXT}")
add_custom_command(TARGET qob POST_BUILD
                   COMMAND ${QOB_MINGW_DLLTOOL} -m i386:x86-64 -D qob.dll -d ${QOB_MINGW_DEF_FILE}
                           -l $<TARGET_LINKER_FILE:qob>
                   COMMENT "Making the MinGW import library libqob.dll.a" VERBATIM)

set(QOB_MSVC_IMPORT_LIBRARY ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/qob.lib)
add_custom_command(OUTPUT ${QOB_MSVC_IMPORT_LIBRARY}
                   COMMAND ${QOB_LLVM_DLLTOOL} -m i386:x86-64 -D qob.dll -d ${QOB_DEF_FILE}
                           -l ${QOB_MSVC_IMPORT_LIBRARY}
                   DEPENDS ${QOB_DEF_FILE}
                   COMMENT "Making the MSVC import library qob.lib" VERBATIM)
add_custom_target(qob_msvc_import_library ALL DEPENDS ${QOB_MSVC_IMPORT_LIBRARY})
install(FILES ${QOB_MSVC_IMPORT_LIBRARY} DESTINATION ${CMAKE_INSTALL_LIBDIR})
