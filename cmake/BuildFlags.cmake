# vesk_flags carries what every target of the project compiles with.
add_library(vesk_flags INTERFACE)
target_compile_options(vesk_flags INTERFACE
  -Wall -Wextra -Wno-unused-parameter -fvisibility=hidden -fvisibility-inlines-hidden
  $<$<BOOL:${VESK_WERROR}>:-Werror>)
target_compile_definitions(vesk_flags INTERFACE
  wxNO_IMPLICIT_WXSTRING_ENCODING
  OPENSSL_API_COMPAT=0x10000000L
  OPENSSL_SUPPRESS_DEPRECATED)
# Generated headers (the version) live under the build tree, same paths as sources.
configure_file(${PROJECT_SOURCE_DIR}/core/runtime/Version.h.in
  ${PROJECT_BINARY_DIR}/generated/core/runtime/Version.h @ONLY)
target_include_directories(vesk_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
target_link_libraries(vesk_flags INTERFACE vesk_wx PkgConfig::LUA52 Threads::Threads)

if(VESK_SANITIZE)
  set(_vesk_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  # GCC 12's maybe-uninitialized analysis misfires inside libstdc++ (std::regex,
  # std::function) once sanitizers instrument it.
  add_compile_options(${_vesk_san} -Wno-maybe-uninitialized)
  add_link_options(${_vesk_san})
endif()
if(VESK_FUZZ)
  # Everything is instrumented for coverage; only the fuzz targets link the
  # fuzzer's main.
  set(_vesk_fuzz -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
    -fno-omit-frame-pointer)
  add_compile_options(${_vesk_fuzz})
  add_link_options(-fsanitize=address,undefined)
endif()
if(VESK_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=thread)
endif()
