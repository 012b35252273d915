# SPDX-License-Identifier: Apache-2.0
# How to compile everything in less time, where it is done once: `pip install` of a source tree does.
#
# Machine code and messages are the same. A build that is repeated after a change would compile more,
# and compiler caches do not know compiled headers, so development goes without.

option(KORVEX_QUICK_BUILD
  "Read headers once for many sources: for a build that is not repeated after changes" OFF)

# korvex_compile_together(TARGET SOURCE...): the sources of an extension module, twelve at a time as
# if they were one file. Those that are named stay apart, as names of theirs are in others too.
function(korvex_compile_together target)
  if(NOT KORVEX_QUICK_BUILD)
    return()
  endif()
  # The table of a family has this name in each file of functions.
  set_target_properties(${target} PROPERTIES
    UNITY_BUILD ON
    UNITY_BUILD_BATCH_SIZE 12
    UNITY_BUILD_UNIQUE_ID KORVEX_SOURCE
    UNITY_BUILD_CODE_BEFORE_INCLUDE
      "#define KORVEX_JOINED(a, b) a##_##b\n#define KORVEX_JOIN(a, b) KORVEX_JOINED(a, b)\n#define kRows KORVEX_JOIN(kRows, KORVEX_SOURCE)")
  if(ARGN)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  endif()
endfunction()

# korvex_compile_headers_first(TARGET HEADER...): for sources whose speed must not depend on which of
# them are one file.
function(korvex_compile_headers_first target)
  if(KORVEX_QUICK_BUILD)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()
