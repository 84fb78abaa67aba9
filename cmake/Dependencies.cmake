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
