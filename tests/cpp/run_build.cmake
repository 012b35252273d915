# SPDX-License-Identifier: Apache-2.0
# Runs the test program of one build, shows what it prints, and keeps that for compare_builds.cmake.
#
# usage: cmake -DPROGRAM=path -DOUTPUT=file [-DEMULATOR=path|option|...] -P run_build.cmake
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(REMOVE "${OUTPUT}")
execute_process(COMMAND ${emulator} "${PROGRAM}" OUTPUT_VARIABLE output RESULT_VARIABLE status)
message("${output}")
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} failed with ${status}")
endif()
file(WRITE "${OUTPUT}" "${output}")
