# GoogleTest: the installed package natively; for a cross build, built from
# the sources Debian's googletest package installs.
if(CMAKE_CROSSCOMPILING)
  set(KIVO_GTEST_SRC /usr/src/googletest CACHE PATH "GoogleTest sources")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${KIVO_GTEST_SRC} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  set(KIVO_GTEST_LIBS gtest gtest_main)
else()
  find_package(GTest REQUIRED)
  set(KIVO_GTEST_LIBS GTest::gtest GTest::gtest_main)
endif()
