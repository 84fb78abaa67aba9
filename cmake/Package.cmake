# Debian packages by CPack (scripts/package.sh runs it): vesk-agent, what runs
# (the agent, the libraries, the Lua module and modules, the service), and
# libvesk-core-dev, what a host builds against. Dependencies on other
# packages come from the shared objects, through dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME vesk-core)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${VESK_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL agent dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE vesk-core)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME vesk-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION admin)
# Neither is needed by the agent or the library: lua5.2 is the stock
# interpreter that `require "vesk_core"` serves, and the demo manager runs
# the openssl tool once, to make its certificate.
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS "lua5.2, openssl")
set(CPACK_DEBIAN_AGENT_DESCRIPTION "vesk host agent and its native core
vesk-agent runs Lua services that inspect and report on the host, as a
systemd service (disabled until enabled) or from the command line.

It comes with libvesk_core.so, the native core the services call (also a
Lua 5.2 module: require \"vesk_core\"), libhostseal.so, which seals a secret
to the machine, the Lua modules it ships, and a demo: a manager and a
heartbeat that reports this host to it over TLS.")
configure_file(${PROJECT_SOURCE_DIR}/packaging/conffiles.in ${PROJECT_BINARY_DIR}/packaging/conffiles
  @ONLY)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/packaging/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm
  ${PROJECT_SOURCE_DIR}/packaging/postrm
  ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvesk-core-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DEPENDS agent)
# What the public headers include, and the finders the CMake package uses.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libwxgtk3.2-dev, liblua5.2-dev, libssl-dev, pkg-config")
set(CPACK_DEBIAN_DEV_DESCRIPTION "vesk host agent - development files
Headers, the CMake package (find_package(vesk_core) gives
vesk_core::vesk_core) and the pkg-config file (vesk_core) for programs that
host libvesk_core.so.")

include(CPack)
