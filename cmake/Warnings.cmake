# SPDX-License-Identifier: MIT

# The warnings with which the code of the project compiles cleanly, with g++ and with clang++.
add_library(zarip_warnings INTERFACE)
target_compile_options(zarip_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 $<$<BOOL:${ZARIP_WERROR}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
