# cmake -DAGENT=... -DOUTPUT=... -P GenerateApiDoc.cmake: the Lua API
# reference as `vesk-agent --api-doc` prints it, without the values that
# belong to the machine or the build type rather than to the sources, so that
# the committed copy is the same wherever it is made.
execute_process(COMMAND ${AGENT} --api-doc
  OUTPUT_VARIABLE text ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${AGENT} --api-doc failed (${status}): ${errors}")
endif()
string(REGEX REPLACE "(\n- string `platform`) = [^\n]*" "\\1: the running host's" text "${text}")
string(REGEX REPLACE "(\n- boolean `releaseBuild`) = [^\n]*" "\\1: true in a build with NDEBUG"
  text "${text}")
file(WRITE ${OUTPUT}.tmp
  "<!-- Made by the build from `vesk-agent --api-doc`; do not edit. "
  "`cmake --build <build-dir> --target update-docs` copies it here. -->\n\n${text}")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)
