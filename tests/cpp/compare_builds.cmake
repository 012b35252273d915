# SPDX-License-Identifier: Apache-2.0
# Runs the test program of each build and holds their checksums against each other.
#
# usage: cmake -DPROGRAMS=a|b|c -P compare_builds.cmake
string(REPLACE "|" ";" programs "${PROGRAMS}")
set(expected "")
foreach(program IN LISTS programs)
  execute_process(COMMAND "${program}" OUTPUT_VARIABLE output RESULT_VARIABLE status)
  string(REGEX MATCH "checksum [0-9a-f]+" checksum "${output}")
  message(STATUS "${program}: ${checksum}")
  if(NOT status EQUAL 0 OR checksum STREQUAL "")
    message(FATAL_ERROR "${program} failed with ${status}:\n${output}")
  endif()
  if(expected STREQUAL "")
    set(expected "${checksum}")
  elseif(NOT checksum STREQUAL expected)
    message(FATAL_ERROR "${program} differs from the first program")
  endif()
endforeach()
