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
else()
  find_package(GTest REQUIRED)
  set(ZELIPS_GTEST_LIBS GTest::gmock GTest::gtest_main)
  include(GoogleTest)
endif()

# zelips_add_test(NAME SOURCES... LIBS libs...)
# Linux: every test case is registered with CTest. Windows: one executable is
# built; scripts/test runs it under Wine and reads GoogleTest's own summary.
function(zelips_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  zelips_target_defaults(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} ${ZELIPS_GTEST_LIBS})
  target_compile_definitions(${name} PRIVATE ZELIPS_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  if(WIN32)
    set_property(GLOBAL APPEND PROPERTY ZELIPS_WINDOWS_TESTS ${name})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 30
      PROPERTIES ENVIRONMENT "ZELIPS_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
  endif()
endfunction()
