# Every library the build needs, found once; targets link the imported names.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

find_package(wxWidgets 3.2 REQUIRED COMPONENTS base)
add_library(vesk_wx INTERFACE)
target_include_directories(vesk_wx SYSTEM INTERFACE ${wxWidgets_INCLUDE_DIRS})
# The base library is built without GUI; headers must agree or wx objects change layout.
target_compile_definitions(vesk_wx INTERFACE ${wxWidgets_DEFINITIONS} wxUSE_GUI=0)
target_compile_options(vesk_wx INTERFACE ${wxWidgets_CXX_FLAGS})
target_link_libraries(vesk_wx INTERFACE ${wxWidgets_LIBRARIES})

pkg_check_modules(LUA52 REQUIRED IMPORTED_TARGET lua5.2)
find_package(OpenSSL 3.0 REQUIRED)
find_package(ZLIB REQUIRED)
find_package(EXPAT REQUIRED)

# wxSQLite3 ships no CMake or pkg-config file of its own.
find_path(WXSQLITE3_INCLUDE_DIR wx/wxsqlite3.h PATH_SUFFIXES wx-3.2 REQUIRED)
find_library(WXSQLITE3_LIBRARY NAMES wxsqlite3-3.2 REQUIRED)
add_library(vesk_wxsqlite3 INTERFACE)
target_include_directories(vesk_wxsqlite3 SYSTEM INTERFACE ${WXSQLITE3_INCLUDE_DIR})
target_link_libraries(vesk_wxsqlite3 INTERFACE ${WXSQLITE3_LIBRARY} vesk_wx)
