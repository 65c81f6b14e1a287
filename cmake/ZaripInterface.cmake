# SPDX-License-Identifier: MIT

# zarip_add_interface(<target> [PUBLIC] <file>...)
#
# Embeds descriptions of services into a target. Each file is an introspection document with one interface and has its
# name. It becomes a header for the sources of the target: com.example.Illuminator.xml becomes
# "com.example.Illuminator.h", with the constant
#
#   zarip::descriptions::com_example_Illuminator
#
# of type `zarip::interfaces::ServiceDescription`, which the constructors of `RemoteService` and `ServiceServer` take. The
# path of the object is the name of the root node in the file, or else the name of the interface with slashes. With PUBLIC
# the targets that link to this one find the headers, too. Call it in the folder that makes the target.

function(zarip_add_interface target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "PUBLIC" "" "")
  if(NOT TARGET ${target})
    message(FATAL_ERROR "zarip_add_interface: ${target} is not a target")
  endif()
  get_target_property(owner ${target} SOURCE_DIR)
  if(NOT owner STREQUAL CMAKE_CURRENT_SOURCE_DIR)
    # The build of the target would have no rule for the headers.
    message(FATAL_ERROR "zarip_add_interface: ${target} is made in ${owner}; call it there")
  endif()
  set(scope PRIVATE)
  if(arg_PUBLIC)
    set(scope PUBLIC)
  endif()
  # A folder for each target, because targets may be built at the same time.
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/zarip-interfaces/${target})
  file(MAKE_DIRECTORY ${folder})
  foreach(file IN LISTS arg_UNPARSED_ARGUMENTS)
    get_filename_component(file ${file} ABSOLUTE)
    get_filename_component(name ${file} NAME)
    string(REGEX REPLACE "\\.xml$" ".h" header "${folder}/${name}")
    add_custom_command(OUTPUT ${header}
      COMMAND ${CMAKE_COMMAND} -DINPUT=${file} -DOUTPUT=${header} -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/ZaripEmbedInterface.cmake
      DEPENDS ${file} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/ZaripEmbedInterface.cmake
      COMMENT "Embedding ${name}"
      VERBATIM)
    target_sources(${target} PRIVATE ${header})
  endforeach()
  target_include_directories(${target} ${scope} $<BUILD_INTERFACE:${folder}>)
endfunction()
