# cmake -DLAYER=<dir> -DMAY_INCLUDE=<layers> -DALSO=<headers> -DROOT=<source dir>
#       -DSTAMP=<file> -P CheckLayerIncludes.cmake
#
# Fails when a file of core/<LAYER> includes a header of a layer not in
# MAY_INCLUDE (its own always counts) and not named in ALSO, so that an upward
# include breaks the build where it is written instead of growing unseen.
cmake_minimum_required(VERSION 3.22)
file(GLOB_RECURSE _files RELATIVE ${ROOT} ${ROOT}/core/${LAYER}/*.h ${ROOT}/core/${LAYER}/*.cpp)
set(_allowed ${LAYER} ${MAY_INCLUDE})
set(_errors)
foreach(_file IN LISTS _files)
  file(STRINGS ${ROOT}/${_file} _lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"(core/[a-z]+|slb)/")
  foreach(_line IN LISTS _lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*$" "\\1" _header "${_line}")
    string(REGEX REPLACE "^core/([a-z]+)/.*$" "\\1" _layer "${_header}")
    string(REGEX REPLACE "^(slb)/.*$" "\\1" _layer "${_layer}")
    if(NOT _layer IN_LIST _allowed AND NOT _header IN_LIST ALSO)
      list(APPEND _errors "${_file}: includes ${_header}; core/${LAYER} may include only ${_allowed}")
    endif()
  endforeach()
endforeach()
if(_errors)
  list(JOIN _errors "\n" _text)
  message(FATAL_ERROR "upward include:\n${_text}")
endif()
file(TOUCH ${STAMP})
