# GoogleTest for both builds. Linux uses Debian's packaged libraries; the
# Windows cross builds compile the GoogleTest sources that Debian's
# googletest package ships, with the same cross compiler as the program.
if(WIN32)
  set(ZELIPS_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources")
  if(NOT EXISTS ${ZELIPS_GTEST_SOURCE}/CMakeLists.txt)
    message(FATAL_ERROR "GoogleTest sources not found at ${ZELIPS_GTEST_SOURCE} (install Debian's googletest package)")
  endif()
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(${ZELIPS_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  set(ZELIPS_GTEST_LIBS gmock gtest_main)
  # CTest runs the Windows test executables under Wine, each test case in
  # a process of its own as on Linux; the cases are listed when ctest runs,
  # in the Wine prefix that scripts/test (scripts/wine-env) sets up.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/scripts/wine-run)
  # The tests read the source tree through Wine's Z: drive.
  string(REPLACE "/" "\\" ZELIPS_TEST_SOURCE_DIR "Z:${PROJECT_SOURCE_DIR}")
else()
  find_package(GTest REQUIRED)
  set(ZELIPS_GTEST_LIBS GTest::gmock GTest::gtest_main)
  set(ZELIPS_TEST_SOURCE_DIR ${PROJECT_SOURCE_DIR})
endif()
include(GoogleTest)

# zelips_add_test(NAME SOURCES... LIBS libs... [PROPERTIES props...])
# Every test case is registered with CTest (Windows: run under Wine).
# PROPERTIES are set on each of its cases.
function(zelips_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;PROPERTIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  zelips_target_defaults(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} ${ZELIPS_GTEST_LIBS})
  target_compile_definitions(${name} PRIVATE ZELIPS_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "ZELIPS_SOURCE_DIR=${ZELIPS_TEST_SOURCE_DIR}" ${ARG_PROPERTIES})
endfunction()
