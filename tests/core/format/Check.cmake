# SPDX-License-Identifier: MIT

# Compiles every case of Cases.cpp with the compiler of this build and with the other one where it is installed.
find_program(GXX g++)
find_program(CLANGXX clang++)
set(compilers ${COMPILER} ${GXX} ${CLANGXX})
list(REMOVE_DUPLICATES compilers)
file(READ ${SOURCE} text)
string(REGEX MATCHALL "CASE == [0-9]+" cases "${text}")
foreach(compiler IN LISTS compilers)
  foreach(case IN LISTS cases)
    string(REGEX REPLACE "CASE == " "" number "${case}")
    execute_process(
      COMMAND ${compiler} -std=c++17 -I${INCLUDE} -Wall -Wextra -Wpedantic -Wformat=2 -Werror -DCASE=${number} -fsyntax-only ${SOURCE}
      RESULT_VARIABLE result ERROR_VARIABLE messages)
    if(number EQUAL 0 AND NOT result EQUAL 0)
      message(SEND_ERROR "${compiler} refuses what is right:\n${messages}")
    elseif(NOT number EQUAL 0 AND (result EQUAL 0 OR NOT messages MATCHES "error: [^\n]*format"))
      message(SEND_ERROR "${compiler} does not refuse the format of case ${number}:\n${messages}")
    endif()
  endforeach()
endforeach()
