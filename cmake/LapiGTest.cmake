# GoogleTest for the tests: the machine's packaged build when there is one
# for the target (the host build), else built here from the sources of
# Debian's googletest package (a cross-build for the handset has no packaged
# target build). Either way the targets are GTest::gtest, GTest::gtest_main
# and GTest::gmock.
find_package(GTest QUIET)
if(GTest_FOUND)
  return()
endif()
set(LAPI_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources to build for the target")
if(NOT EXISTS ${LAPI_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "No GoogleTest for this target and no sources in ${LAPI_GTEST_SOURCE_DIR} "
    "(Debian package googletest)")
endif()
message(STATUS "GoogleTest: building ${LAPI_GTEST_SOURCE_DIR} for ${CMAKE_SYSTEM_PROCESSOR}")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${LAPI_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(lib gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${lib})
    add_library(GTest::${lib} ALIAS ${lib})
  endif()
endforeach()
