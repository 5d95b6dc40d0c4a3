# The Python package as a platform wheel with the library inside
# (python/dist/qob-<version>-py3-none-linux_x86_64.whl in the build tree), built offline with
# Debian's python3, pip, setuptools and wheel. Linux builds only: the wheel bundles
# libqob.so.0.
if(WIN32 OR CMAKE_CROSSCOMPILING OR QOB_SANITIZE)
  return()
endif()
find_program(QOB_WHEEL_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(QOB_WHEEL_PYTHON)
  execute_process(COMMAND ${QOB_WHEEL_PYTHON} -c "import setuptools, wheel, pip"
                  RESULT_VARIABLE QOB_WHEEL_MISSING OUTPUT_QUIET ERROR_QUIET)
endif()
if(NOT QOB_WHEEL_PYTHON OR QOB_WHEEL_MISSING)
  message(STATUS "qob: no wheel (needs python3-pip, python3-setuptools, python3-wheel)")
  return()
endif()

set(QOB_WHEEL_TREE ${PROJECT_BINARY_DIR}/python/src)
set(QOB_WHEEL_DIR ${PROJECT_BINARY_DIR}/python/dist)
set(QOB_WHEEL_STAMP ${PROJECT_BINARY_DIR}/python/wheel.stamp)
set(QOB_BUNDLED ${QOB_WHEEL_TREE}/qob/$<TARGET_SONAME_FILE_NAME:qob>)
file(GLOB QOB_PYTHON_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/python/qob/*.py
     ${PROJECT_SOURCE_DIR}/python/*.toml ${PROJECT_SOURCE_DIR}/python/*.py)
# The symbolic link python/LICENSE would not survive the copy: the licence is copied itself.
set(QOB_WHEEL_STRIP true)
if(CMAKE_STRIP)
  set(QOB_WHEEL_STRIP ${CMAKE_STRIP} --strip-unneeded ${QOB_BUNDLED})
endif()
add_custom_command(
  OUTPUT ${QOB_WHEEL_STAMP}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QOB_WHEEL_TREE} ${QOB_WHEEL_DIR}
  COMMAND ${CMAKE_COMMAND} -E copy_directory ${PROJECT_SOURCE_DIR}/python ${QOB_WHEEL_TREE}
  COMMAND ${CMAKE_COMMAND} -E rm -f ${QOB_WHEEL_TREE}/LICENSE
  COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/LICENSE ${QOB_WHEEL_TREE}/LICENSE
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:qob> ${QOB_BUNDLED}
  COMMAND ${QOB_WHEEL_STRIP}
  COMMAND ${QOB_WHEEL_PYTHON} -m pip wheel --quiet --no-build-isolation --no-deps --no-index
          --no-cache-dir -w ${QOB_WHEEL_DIR} ${QOB_WHEEL_TREE}
  COMMAND ${CMAKE_COMMAND} -E touch ${QOB_WHEEL_STAMP}
  DEPENDS qob ${QOB_PYTHON_SOURCES} ${PROJECT_SOURCE_DIR}/LICENSE
  COMMENT "Python wheel with the library inside" VERBATIM)
add_custom_target(qob_wheel ALL DEPENDS ${QOB_WHEEL_STAMP})
