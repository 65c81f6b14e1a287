# The JSON element model: an installed CAJUN where there is one, otherwise compat/ with the same names, which is then
# installed, too, in ZARIP_JSON_INSTALL_DIR: a folder of its own, so that it never hides a CAJUN that comes later.
add_library(zarip_json INTERFACE)
find_path(CAJUN_INCLUDE_DIR cajun/json/elements.h)
if(CAJUN_INCLUDE_DIR)
  target_include_directories(zarip_json SYSTEM INTERFACE ${CAJUN_INCLUDE_DIR})
  set(ZARIP_JSON_INSTALL_DIR)
else()
  set(ZARIP_JSON_INSTALL_DIR ${CMAKE_INSTALL_INCLUDEDIR}/zarip/compat)
  target_include_directories(zarip_json INTERFACE ${PROJECT_SOURCE_DIR}/compat)
  # RapidJSON reads the text for compat/; its headers are a third party's.
  find_path(RAPIDJSON_INCLUDE_DIR rapidjson/reader.h REQUIRED)
  target_include_directories(zarip_json SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})
endif()
