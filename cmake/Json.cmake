# SPDX-License-Identifier: MIT

# The JSON element model. If CAJUN is installed, it is used. Otherwise the headers of compat/ with the same names are used
# and installed in ZARIP_JSON_INSTALL_DIR, a folder of its own, and their parser is part of the library.
add_library(zarip_json INTERFACE)
add_library(zarip_rapidjson INTERFACE)
find_path(CAJUN_INCLUDE_DIR cajun/json/elements.h)
if(CAJUN_INCLUDE_DIR)
  target_include_directories(zarip_json SYSTEM INTERFACE ${CAJUN_INCLUDE_DIR})
  set(ZARIP_JSON_INSTALL_DIR)
else()
  set(ZARIP_JSON_INSTALL_DIR ${CMAKE_INSTALL_INCLUDEDIR}/zarip/compat)
  target_include_directories(zarip_json INTERFACE ${PROJECT_SOURCE_DIR}/compat)
  find_path(RAPIDJSON_INCLUDE_DIR rapidjson/reader.h)
  if(NOT RAPIDJSON_INCLUDE_DIR)
    message(FATAL_ERROR "zarip needs the headers of RapidJSON. Debian has them in rapidjson-dev.")
  endif()
  target_include_directories(zarip_rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})
endif()
