# What `cmake --install` adds beside the targets (which install themselves):
# the Lua side, the service, the documents, and the CMake and pkg-config
# packages for hosts that link the library. Components: "agent" is what runs,
# "dev" what a host builds against.
include(CMakePackageConfigHelpers)

# The bundled modules and the demo services go where a stock Lua 5.2 finds
# them; the demo also as the archive the default service options load.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/lua/vesk/ ${PROJECT_SOURCE_DIR}/lua/demo/vesk/
  DESTINATION ${VESK_LUA_DIR}/vesk COMPONENT agent FILES_MATCHING PATTERN "*.lua")
install(FILES ${PROJECT_BINARY_DIR}/lua/demo.zip DESTINATION ${VESK_DATA_DIR} COMPONENT agent)

set(VESK_AGENT_PATH ${CMAKE_INSTALL_FULL_BINDIR}/vesk-agent)
cmake_path(ABSOLUTE_PATH VESK_DEFAULTS_DIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE VESK_DEFAULT_FILE)
string(APPEND VESK_DEFAULT_FILE /vesk-agent)
cmake_path(ABSOLUTE_PATH VESK_DATA_DIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE VESK_DEMO_ZIP)
string(APPEND VESK_DEMO_ZIP /demo.zip)
configure_file(${PROJECT_SOURCE_DIR}/packaging/vesk-agent.service.in
  ${PROJECT_BINARY_DIR}/packaging/vesk-agent.service @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/vesk-agent.default.in
  ${PROJECT_BINARY_DIR}/packaging/vesk-agent @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/vesk-agent.service
  DESTINATION ${VESK_SYSTEMD_UNITDIR} COMPONENT agent)
install(FILES ${PROJECT_BINARY_DIR}/packaging/vesk-agent
  DESTINATION ${VESK_DEFAULTS_DIR} COMPONENT agent)

set(_vesk_docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/vesk-agent)
install(FILES ${PROJECT_SOURCE_DIR}/docs/lua-api.md DESTINATION ${_vesk_docdir} COMPONENT agent)
if(VESK_MAN_PAGE)
  install(FILES ${VESK_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT agent)
endif()

# Debian wants a copyright file and a changelog in each package's doc folder.
set(VESK_PACKAGE_MAINTAINER "vesk_core maintainers <maintainers@vesk.invalid>" CACHE STRING
  "Maintainer named in the Debian packages")
string(TIMESTAMP VESK_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in
  ${PROJECT_BINARY_DIR}/packaging/changelog @ONLY)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  COMMAND gzip -9nkf ${PROJECT_BINARY_DIR}/packaging/changelog
  DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog)
add_custom_target(vesk_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
foreach(component_package IN ITEMS "agent;vesk-agent" "dev;libvesk-core-dev")
  list(GET component_package 0 component)
  list(GET component_package 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

install(EXPORT vesk_coreTargets NAMESPACE vesk_core:: DESTINATION ${VESK_INSTALL_CMAKEDIR}
  COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vesk_coreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/vesk_coreConfig.cmake INSTALL_DESTINATION ${VESK_INSTALL_CMAKEDIR})
# The C++ API follows the SOVERSION: only the same major is compatible.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/vesk_coreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/vesk_coreConfig.cmake
  ${PROJECT_BINARY_DIR}/cmake/vesk_coreConfigVersion.cmake
  DESTINATION ${VESK_INSTALL_CMAKEDIR} COMPONENT dev)

# wx has no pkg-config file: its flags, as the library was built with them,
# are written out.
list(TRANSFORM wxWidgets_INCLUDE_DIRS PREPEND -I OUTPUT_VARIABLE _vesk_pc_cflags)
list(TRANSFORM wxWidgets_DEFINITIONS PREPEND -D OUTPUT_VARIABLE _vesk_pc_defines)
list(APPEND _vesk_pc_cflags ${_vesk_pc_defines} -DwxUSE_GUI=0 ${wxWidgets_CXX_FLAGS})
list(REMOVE_DUPLICATES _vesk_pc_cflags)
list(JOIN _vesk_pc_cflags " " VESK_PC_WX_CFLAGS)
list(JOIN wxWidgets_LIBRARIES " " VESK_PC_WX_LIBS)
string(REGEX REPLACE "  +" " " VESK_PC_WX_LIBS "${VESK_PC_WX_LIBS}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/vesk_core.pc.in ${PROJECT_BINARY_DIR}/cmake/vesk_core.pc
  @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/vesk_core.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
