# SPDX-License-Identifier: MIT

# The JSON element model. An installed CAJUN is used where one is found. Otherwise compat/ has the same names and is
# installed as well, in ZARIP_JSON_INSTALL_DIR, a folder of its own; its parser is part of the library.
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
