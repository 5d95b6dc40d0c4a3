# Fails unless the library exports exactly the ten entry points (nine plain C names and the
# decorated QOB_SetLogFn) and the QOBX_ extensions, and, on Windows, imports nothing but
# system DLLs. Run as: cmake -DLIBRARY=... -DWINDOWS=ON|OFF -DOBJDUMP=... -P
# QOB_SetLogFn carries each platform's own C++ decoration: MSVC's on Windows, where the hosts
# are built with MSVC, and the Itanium one on Linux. On Linux every export carries the version
# node it came with: the ten QOB_0.1, the extensions QOB_0.2.
set(ten QOB_Constructor QOB_Create QOB_Destructor QOB_Extract QOB_GetLensCastCalibInfo
        QOB_GetPackageInfo QOB_IsQob QOB_RemoveEntry QOB_Update)
set(extensions QOBX_CodeName QOBX_LastError QOBX_ListEntries QOBX_ReadEntry QOBX_SetLogLevel
               QOBX_SetProgressFn QOBX_Version)
if(WINDOWS)
  set(expected ${ten} ${extensions} "?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z")
else()
  list(TRANSFORM ten APPEND "@@QOB_0.1")
  list(TRANSFORM extensions APPEND "@@QOB_0.2")
  set(expected ${ten} ${extensions} _Z12QOB_SetLogFnPFviPKcPvES1_@@QOB_0.1 QOB_0.1 QOB_0.2)
endif()
if(WINDOWS)
  execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE dump RESULT_VARIABLE failed)
  # The toolchain's runtime and zlib are linked in: only system DLLs may be imported.
  string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
  foreach(import IN LISTS imports)
    if(import MATCHES "lib(stdc\\+\\+|gcc|winpthread)|zlib")
      message(FATAL_ERROR "${LIBRARY} imports a non-system library: ${import}")
    endif()
  endforeach()
  # The export name table: lines like "	[   0] QOB_Constructor" after its heading, up to the
  # blank line that ends it.
  string(FIND "${dump}" "[Ordinal/Name Pointer] Table" start)
  if(start LESS 0)
    message(FATAL_ERROR "no export table in ${LIBRARY}")
  endif()
  string(SUBSTRING "${dump}" ${start} -1 dump)
  string(FIND "${dump}" "\n\n" stop)
  string(SUBSTRING "${dump}" 0 ${stop} dump)
  string(REGEX MATCHALL "\\[ *[0-9]+\\] [^\n]+" rows "${dump}")
  set(names)
  foreach(row IN LISTS rows)
    string(REGEX REPLACE "^\\[ *[0-9]+\\] " "" name "${row}")
    list(APPEND names ${name})
  endforeach()
else()
  execute_process(COMMAND nm -D --defined-only ${LIBRARY} OUTPUT_VARIABLE dump
                  RESULT_VARIABLE failed)
  string(REGEX MATCHALL "[0-9a-f]+ [A-Za-z] [^\n]+" rows "${dump}")
  set(names)
  foreach(row IN LISTS rows)
    string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" name "${row}")
    list(APPEND names ${name})
  endforeach()
endif()
if(failed)
  message(FATAL_ERROR "cannot list the exports of ${LIBRARY}")
endif()
list(SORT names)
list(SORT expected)
if(NOT names STREQUAL expected)
  message(FATAL_ERROR "exports of ${LIBRARY}:\n  ${names}\nexpected:\n  ${expected}")
endif()
message(STATUS "exports: ${names}")
