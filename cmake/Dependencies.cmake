# SPDX-License-Identifier: MIT

# The dependencies of the library. If one is missing, the error names the package of Debian that has it.

# zarip_find_module(<prefix> <module of pkg-config> <package of Debian>): defines PkgConfig::<prefix>.
macro(zarip_find_module prefix module package)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET ${module})
  if(NOT ${prefix}_FOUND)
    message(FATAL_ERROR "zarip needs ${module}, which pkg-config does not find. Debian has it in ${package}.")
  endif()
endmacro()

find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)
if(NOT PKG_CONFIG_FOUND)
  message(FATAL_ERROR "zarip needs pkg-config to find its dependencies. Debian has it in pkg-config.")
endif()
zarip_find_module(DBUS dbus-1 libdbus-1-dev)
zarip_find_module(LIBXML2 libxml-2.0 libxml2-dev)
zarip_find_module(LIBGCRYPT libgcrypt libgcrypt20-dev)
