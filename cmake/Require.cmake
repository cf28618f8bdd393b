# A dependency is found or the configuration stops, naming the Debian package
# that provides it (scripts/setup-deps.sh installs them all). Macros, so that
# the variables and imported targets they make are the caller's.

# vq_require_pkgconfig(PREFIX "debian-package ..." module...): PkgConfig::PREFIX.
macro(vq_require_pkgconfig prefix packages)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET ${ARGN})
  if(NOT ${prefix}_FOUND)
    message(FATAL_ERROR "${ARGN} not found: install the Debian package(s) ${packages} (scripts/setup-deps.sh)")
  endif()
endmacro()

# vq_require_package(Name debian-package [version]): find_package(Name).
macro(vq_require_package name package)
  find_package(${name} ${ARGN} QUIET)
  if(NOT ${name}_FOUND)
    message(FATAL_ERROR "${name} ${ARGN} not found: install the Debian package ${package} (scripts/setup-deps.sh)")
  endif()
endmacro()
