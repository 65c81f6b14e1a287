# SPDX-License-Identifier: MIT

# Writes the header OUTPUT with a constant `zarip::interfaces::ServiceDescription` from the introspection file INPUT;
# `zarip_add_interface` runs it.
get_filename_component(name ${INPUT} NAME)
string(REGEX REPLACE "\\.xml$" "" name "${name}")
if(NOT name MATCHES "^[A-Za-z_][A-Za-z0-9_]*(\\.[A-Za-z_][A-Za-z0-9_]*)+$")
  message(FATAL_ERROR "${INPUT} is not called like an interface of the bus, as in com.example.Illuminator.xml")
endif()
file(READ ${INPUT} xml)
string(REPLACE "." "\\." pattern "${name}")
string(REGEX MATCH "[ \t]*<interface[ \t\r\n]+name=[\"']${pattern}[\"'].*</interface>[ \t]*\n?" element "${xml}")
string(REGEX MATCHALL "</interface>" ends "${element}")
list(LENGTH ends count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "${INPUT} has to have the interface ${name} as its only one, with an end tag")
endif()
if(xml MATCHES "<node[ \t\r\n]+name=[\"'](/[A-Za-z0-9_/]*)[\"']")
  set(path "${CMAKE_MATCH_1}")
else()
  string(REPLACE "." "/" path "/${name}")
endif()
string(REPLACE "." "_" constant "${name}")
# Compilers need not accept longer literals, so a long description becomes several.
string(LENGTH "${element}" length)
set(literal)
set(begin 0)
while(begin LESS length)
  string(SUBSTRING "${element}" ${begin} 8000 piece)
  string(APPEND literal "\n    R\"zarip(${piece})zarip\"")
  math(EXPR begin "${begin} + 8000")
endwhile()
file(WRITE ${OUTPUT} "// Made from ${name}.xml by zarip_add_interface.
#pragma once

#include <zarip/interfaces/ServiceDescription.h>

namespace zarip::descriptions {

inline constexpr interfaces::ServiceDescription ${constant} = {\"${name}\", \"${path}\",${literal}};

}  // namespace zarip::descriptions
")
