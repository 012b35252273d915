# SPDX-License-Identifier: Apache-2.0
# Says at the end of an installation which GPUs it serves. As a script, from a folder of kernels:
#   cmake -DKORVEX_FOLDER=FOLDER -P KorvexServedGpus.cmake

# Makes 8.9 out of 89 and 12.0 out of 120.
function(korvex_capability number result)
  string(REGEX REPLACE "^([0-9]+)([0-9])$" "\\1.\\2" capability "${number}")
  set(${result} "${capability}" PARENT_SCOPE)
endfunction()

# korvex_served_gpus(RESULT FILES...): one sentence, from the names of files of kernels. What it says is
# how the loaders choose: korvex/cubin_loader_native/kernel_files.cpp.
function(korvex_served_gpus result)
  set(machine_code "")
  set(ptx "")
  foreach(file IN LISTS ARGN)
    if(file MATCHES "korvex_sm_([0-9]+)\\.cubin$")
      list(APPEND machine_code "${CMAKE_MATCH_1}")
    elseif(file MATCHES "korvex_compute_([0-9]+)\\.ptx$")
      list(APPEND ptx "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  if(NOT machine_code)
    set(${result} "korvex serves no GPU: it was built without kernels (docs/gpu.md says how to build \
with them). Everything else works, in host memory." PARENT_SCOPE)
    return()
  endif()
  list(SORT machine_code COMPARE NATURAL)
  list(GET machine_code 0 oldest)
  korvex_capability("${oldest}" oldest)
  set(words "")
  foreach(number IN LISTS machine_code)
    korvex_capability("${number}" capability)
    list(APPEND words "${capability}")
  endforeach()
  list(JOIN words ", " words)
  set(newer "")
  foreach(number IN LISTS ptx)
    korvex_capability("${number}" capability)
    set(newer ", and newer ones than ${capability} by PTX, which their driver compiles")
  endforeach()
  set(${result} "korvex serves GPUs of compute capability ${words}, those of the same major and a \
higher minor number unless they are part of a system on a chip${newer}; none older than ${oldest}."
    PARENT_SCOPE)
endfunction()

if(CMAKE_SCRIPT_MODE_FILE)
  file(GLOB korvex_files "${KORVEX_FOLDER}/korvex_*")
  korvex_served_gpus(korvex_sentence ${korvex_files})
  message("${korvex_sentence}")
endif()
