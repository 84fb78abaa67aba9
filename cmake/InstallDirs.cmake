# Where an install puts things. Included before the targets, which install
# themselves with these directories. With the prefix /usr, GNUInstallDirs
# gives Debian's multiarch library directory and /etc.
include(GNUInstallDirs)

# Headers keep the source tree's layout ("core/runtime/App.h") under one
# folder of their own; consumers add that folder to their include path.
set(VESK_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vesk_core)
set(VESK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vesk_core)
# The directories Debian's lua5.2 searches by default, so that
# `require "vesk_core"` and the bundled modules need no path set.
set(VESK_LUA_DIR ${CMAKE_INSTALL_DATADIR}/lua/5.2 CACHE STRING
  "Lua 5.2 module directory, relative to the prefix")
set(VESK_LUA_CDIR ${CMAKE_INSTALL_LIBDIR}/lua/5.2 CACHE STRING
  "Lua 5.2 native module directory, relative to the prefix")
set(VESK_DATA_DIR ${CMAKE_INSTALL_DATADIR}/vesk-agent)
# Debian 12's systemd reads packaged units from /lib only, and the
# service's options belong in /etc/default; any other prefix keeps both
# inside it, so that `cmake --install --prefix` writes nowhere else.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(VESK_SYSTEMD_UNITDIR /lib/systemd/system)
  set(VESK_DEFAULTS_DIR /etc/default)
else()
  set(VESK_SYSTEMD_UNITDIR lib/systemd/system)
  set(VESK_DEFAULTS_DIR ${CMAKE_INSTALL_SYSCONFDIR}/default)
endif()

# Outside /usr the loader does not look where the libraries go.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

# vesk_install_headers(DIR DESTINATION [EXCLUDE NAME...]): the headers under
# DIR, in their folders, and no empty folder for a folder of sources only.
function(vesk_install_headers dir destination)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" EXCLUDE)
  file(GLOB_RECURSE headers RELATIVE ${dir} CONFIGURE_DEPENDS ${dir}/*.h)
  foreach(header IN LISTS headers)
    if(header IN_LIST arg_EXCLUDE)
      continue()
    endif()
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${dir}/${header} DESTINATION ${destination}/${folder} COMPONENT dev)
  endforeach()
endfunction()
