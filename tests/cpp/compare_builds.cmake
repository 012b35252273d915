# SPDX-License-Identifier: Apache-2.0
# Holds the checksums that the test programs of all builds have printed against each other.
#
# usage: cmake -DOUTPUTS=a|b|c -P compare_builds.cmake
string(REPLACE "|" ";" outputs "${OUTPUTS}")
set(expected "")
foreach(file IN LISTS outputs)
  file(READ "${file}" output)
  string(REGEX MATCH "checksum [0-9a-f]+" checksum "${output}")
  message(STATUS "${file}: ${checksum}")
  if(checksum STREQUAL "")
    message(FATAL_ERROR "${file} holds no checksum")
  elseif(expected STREQUAL "")
    set(expected "${checksum}")
  elseif(NOT checksum STREQUAL expected)
    message(FATAL_ERROR "${file} differs from the first")
  endif()
endforeach()
