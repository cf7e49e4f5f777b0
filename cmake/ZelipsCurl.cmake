# libcurl for both builds, as two imported targets:
#   Zelips::curl          link libcurl (headers, library, and what it needs)
#   Zelips::curl_headers  headers and definitions only, for code that loads
#                         libcurl at run time instead of linking it
#
# Linux: Debian's libcurl (find_package(CURL), package libcurl4-openssl-dev).
# Windows: a static libcurl with Schannel that scripts/build-curl-mingw builds
# from Debian's curl source package into ZELIPS_CURL_PREFIX, by default
# build/deps/curl-<processor> under the source tree, shared by every build
# folder of the same processor. With ZELIPS_CURL_AUTOBUILD on (the default),
# configuring runs the script, which returns at once when the library is up to
# date and otherwise builds it (a few minutes; root or sudo to fetch sources).
if(TARGET Zelips::curl)
  return()
endif()

if(WIN32)
  set(ZELIPS_CURL_PREFIX "${PROJECT_SOURCE_DIR}/build/deps/curl-${CMAKE_SYSTEM_PROCESSOR}"
      CACHE PATH "Install prefix of the static mingw libcurl")
  option(ZELIPS_CURL_AUTOBUILD "Run scripts/build-curl-mingw at configure time (builds libcurl when missing or outdated)" ON)

  set(_zc_lib "${ZELIPS_CURL_PREFIX}/lib/libcurl.a")
  set(_zc_inc "${ZELIPS_CURL_PREFIX}/include")
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(_zc_target x86_64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(i.86|x86)$")
    set(_zc_target i686)
  else()
    message(FATAL_ERROR "ZelipsCurl: no libcurl build for processor ${CMAKE_SYSTEM_PROCESSOR}")
  endif()

  # The script returns at once when the library is up to date (same source
  # version as Debian's installed libcurl, same options).
  if(ZELIPS_CURL_AUTOBUILD)
    if(NOT EXISTS "${ZELIPS_CURL_PREFIX}/zelips-curl.stamp")
      message(STATUS "ZelipsCurl: building libcurl for ${_zc_target} into ${ZELIPS_CURL_PREFIX} (a few minutes)")
    endif()
    execute_process(
      COMMAND bash "${PROJECT_SOURCE_DIR}/scripts/build-curl-mingw" ${_zc_target} "${ZELIPS_CURL_PREFIX}"
      RESULT_VARIABLE _zc_rc
      OUTPUT_VARIABLE _zc_out
      ERROR_VARIABLE _zc_out)
    if(NOT _zc_rc EQUAL 0)
      message(FATAL_ERROR "ZelipsCurl: scripts/build-curl-mingw failed:\n${_zc_out}")
    endif()
  endif()
  if(NOT EXISTS "${_zc_lib}" OR NOT EXISTS "${_zc_inc}/curl/curl.h")
    message(FATAL_ERROR "ZelipsCurl: no static libcurl in ${ZELIPS_CURL_PREFIX}; run\n"
                        "  scripts/build-curl-mingw ${_zc_target} ${ZELIPS_CURL_PREFIX}")
  endif()

  # The Windows libraries the static libcurl needs, as its pkg-config file
  # lists them (Schannel: crypt32, bcrypt, advapi32; sockets: ws2_32).
  set(_zc_syslibs "")
  set(_zc_pc "${ZELIPS_CURL_PREFIX}/lib/pkgconfig/libcurl.pc")
  if(EXISTS "${_zc_pc}")
    file(STRINGS "${_zc_pc}" _zc_private REGEX "^Libs.private:")
    string(REGEX MATCHALL "-l[A-Za-z0-9_]+" _zc_flags "${_zc_private}")
    foreach(_zc_flag ${_zc_flags})
      string(SUBSTRING "${_zc_flag}" 2 -1 _zc_name)
      list(APPEND _zc_syslibs ${_zc_name})
    endforeach()
  endif()
  if(NOT _zc_syslibs)
    set(_zc_syslibs bcrypt advapi32 crypt32 ws2_32)
  endif()

  add_library(Zelips::curl_headers INTERFACE IMPORTED GLOBAL)
  set_target_properties(Zelips::curl_headers PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_zc_inc}"
    INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB)

  add_library(Zelips::curl STATIC IMPORTED GLOBAL)
  set_target_properties(Zelips::curl PROPERTIES
    IMPORTED_LOCATION "${_zc_lib}"
    IMPORTED_LINK_INTERFACE_LANGUAGES C
    INTERFACE_INCLUDE_DIRECTORIES "${_zc_inc}"
    INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB
    INTERFACE_LINK_LIBRARIES "${_zc_syslibs}")
  message(STATUS "ZelipsCurl: ${_zc_lib} (with ${_zc_syslibs})")
else()
  find_package(CURL REQUIRED)
  set_target_properties(CURL::libcurl PROPERTIES IMPORTED_GLOBAL TRUE)

  add_library(Zelips::curl_headers INTERFACE IMPORTED GLOBAL)
  set_target_properties(Zelips::curl_headers PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${CURL_INCLUDE_DIRS}")

  add_library(Zelips::curl INTERFACE IMPORTED GLOBAL)
  set_target_properties(Zelips::curl PROPERTIES INTERFACE_LINK_LIBRARIES CURL::libcurl)
endif()
