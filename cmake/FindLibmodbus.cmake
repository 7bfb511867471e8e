# Finds libmodbus with find_path/find_library, so a cross toolchain's sysroot
# (CMAKE_SYSROOT, CMAKE_FIND_ROOT_PATH) is searched like the host's; pkg-config
# only contributes search hints when it is present. Defines Libmodbus::Libmodbus.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(PC_LIBMODBUS QUIET libmodbus)
endif()

find_path(Libmodbus_INCLUDE_DIR modbus.h
  HINTS ${PC_LIBMODBUS_INCLUDEDIR} ${PC_LIBMODBUS_INCLUDE_DIRS}
  PATH_SUFFIXES modbus)
find_library(Libmodbus_LIBRARY NAMES modbus
  HINTS ${PC_LIBMODBUS_LIBDIR} ${PC_LIBMODBUS_LIBRARY_DIRS})

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libmodbus REQUIRED_VARS Libmodbus_LIBRARY Libmodbus_INCLUDE_DIR)

if(Libmodbus_FOUND AND NOT TARGET Libmodbus::Libmodbus)
  add_library(Libmodbus::Libmodbus UNKNOWN IMPORTED)
  set_target_properties(Libmodbus::Libmodbus PROPERTIES
    IMPORTED_LOCATION "${Libmodbus_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${Libmodbus_INCLUDE_DIR}")
endif()
mark_as_advanced(Libmodbus_INCLUDE_DIR Libmodbus_LIBRARY)
