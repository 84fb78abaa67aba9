# Documents made from the agent itself: the Lua API reference (committed as
# docs/lua-api.md) and the manual page vesk-agent(1) from --help. Both run
# the agent at build time, so sanitizer and fuzzer builds leave them out.
set(_vesk_docs_default ON)
if(VESK_SANITIZE OR VESK_TSAN OR VESK_FUZZ OR CMAKE_CROSSCOMPILING)
  set(_vesk_docs_default OFF)
endif()
option(VESK_DOCS "Make the Lua API reference and the manual page" ${_vesk_docs_default})
if(NOT VESK_DOCS)
  return()
endif()

set(VESK_API_DOC ${PROJECT_BINARY_DIR}/docs/lua-api.md)
add_custom_command(OUTPUT ${VESK_API_DOC}
  COMMAND ${CMAKE_COMMAND} -DAGENT=$<TARGET_FILE:vesk-agent> -DOUTPUT=${VESK_API_DOC}
    -P ${PROJECT_SOURCE_DIR}/cmake/GenerateApiDoc.cmake
  DEPENDS vesk-agent ${PROJECT_SOURCE_DIR}/cmake/GenerateApiDoc.cmake
  COMMENT "Writing the Lua API reference")
set(_vesk_doc_outputs ${VESK_API_DOC})
add_custom_target(update-docs
  COMMAND ${CMAKE_COMMAND} -E copy ${VESK_API_DOC} ${PROJECT_SOURCE_DIR}/docs/lua-api.md
  DEPENDS ${VESK_API_DOC}
  COMMENT "Copying the Lua API reference to docs/lua-api.md")

find_program(HELP2MAN help2man)
if(HELP2MAN)
  set(VESK_MAN_PAGE ${PROJECT_BINARY_DIR}/docs/vesk-agent.1.gz)
  # Debian installs manual pages compressed, with no name or time in the
  # gzip header; SOURCE_DATE_EPOCH, when set, dates the page.
  set(_vesk_man_env)
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(_vesk_man_env SOURCE_DATE_EPOCH=$ENV{SOURCE_DATE_EPOCH})
  endif()
  add_custom_command(OUTPUT ${VESK_MAN_PAGE}
    COMMAND ${CMAKE_COMMAND} -E env ${_vesk_man_env}
      ${HELP2MAN} --no-info --section=1 --name="the vesk host agent"
      --include=${PROJECT_SOURCE_DIR}/packaging/vesk-agent.h2m
      --output=${PROJECT_BINARY_DIR}/docs/vesk-agent.1 $<TARGET_FILE:vesk-agent>
    COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/docs/vesk-agent.1
    DEPENDS vesk-agent ${PROJECT_SOURCE_DIR}/packaging/vesk-agent.h2m
    COMMENT "Writing the manual page vesk-agent(1)")
  list(APPEND _vesk_doc_outputs ${VESK_MAN_PAGE})
else()
  message(STATUS "help2man not found: no manual page (scripts/package.sh installs it)")
endif()
add_custom_target(vesk_docs ALL DEPENDS ${_vesk_doc_outputs})
