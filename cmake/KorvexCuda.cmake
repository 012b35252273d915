# SPDX-License-Identifier: Apache-2.0
# Finds compilers for device code, and compiles the kernels for one architecture a command.
#
# Two compilers count, and neither needs a GPU or its driver. NVRTC 12.9 is preferred: drivers of
# CUDA 12 load what it makes, but not what nvcc 13 makes. nvcc is for the architectures that are
# newer than that. Without either the package is built all the same, without kernels.

set(KORVEX_CUDA_ARCHITECTURES "auto" CACHE STRING
  "Machine code to build: numbers as in 80;90, 'all' that the compilers offer, 'none', or 'auto': \
for the GPUs of this machine, else 90, if there is a compiler")
set(KORVEX_CUDA_COMPILERS "" CACHE PATH
  "Folder in which pip has put NVIDIA's compilers; searched after PATH and before site-packages")
set(KORVEX_KERNELS "" CACHE PATH
  "Folder of kernels that another build of this tree has made: they are installed, and none compiled")

# Every operation in the source is one operation of the device, rounded as IEEE 754 says.
set(korvex_nvcc_flags
  -std=c++20 -O3 -fmad=false -ftz=false -prec-div=true -prec-sqrt=true -Werror=all-warnings)
# Without its first flag NVRTC refuses functions that bear no annotation, constexpr ones too.
set(korvex_nvrtc_flags
  --device-as-default-execution-space --std=c++20 --fmad=false --ftz=false --prec-div=true --prec-sqrt=true)

# --- Compilers

# korvex_find_nvcc(): sets korvex_nvcc to a compiler that makes code from C++20, or to nothing.
function(korvex_find_nvcc)
  set(korvex_nvcc "" PARENT_SCOPE)
  find_program(KORVEX_NVCC nvcc
    HINTS ENV PATH PATHS "${KORVEX_CUDA_COMPILERS}/nvidia/cu13/bin"
      "${Python_SITELIB}/nvidia/cu13/bin" "${Python_SITEARCH}/nvidia/cu13/bin" /usr/local/cuda/bin
    NO_DEFAULT_PATH NO_CACHE)
  if(NOT KORVEX_NVCC)
    return()
  endif()
  set(probe "${CMAKE_CURRENT_BINARY_DIR}/nvcc_probe")
  file(WRITE "${probe}.cu"
    "#include <cstdint>\ntemplate <class T> requires(sizeof(T) == 8) __device__ T one() { return 1; }\n"
    "__global__ void f(std::int64_t* x) { *x = one<std::int64_t>(); }\n")
  execute_process(
    COMMAND "${KORVEX_NVCC}" -ccbin "${CMAKE_CXX_COMPILER}" -std=c++20 -cubin
      "${probe}.cu" -o "${probe}.cubin"
    RESULT_VARIABLE failed OUTPUT_VARIABLE text ERROR_VARIABLE text)
  if(failed)
    message(STATUS "${KORVEX_NVCC} compiles no C++20 with ${CMAKE_CXX_COMPILER}: not used.")
    return()
  endif()
  execute_process(COMMAND "${KORVEX_NVCC}" --version OUTPUT_VARIABLE text)
  string(REGEX MATCH "V([0-9.]+)" text "${text}")
  set(korvex_nvcc_version "${CMAKE_MATCH_1}" PARENT_SCOPE)
  execute_process(COMMAND "${KORVEX_NVCC}" --list-gpu-code OUTPUT_VARIABLE text)
  string(REGEX MATCHALL "[0-9]+" numbers "${text}")
  set(korvex_nvcc_architectures "${numbers}" PARENT_SCOPE)
  set(korvex_nvcc "${KORVEX_NVCC}" PARENT_SCOPE)
endfunction()

# korvex_find_nvrtc(): sets korvex_nvrtc to the library of CUDA 12, or to nothing.
function(korvex_find_nvrtc)
  set(korvex_nvrtc "" PARENT_SCOPE)
  find_file(KORVEX_NVRTC libnvrtc.so.12
    PATHS "${KORVEX_CUDA_COMPILERS}/nvidia/cuda_nvrtc/lib"
      "${Python_SITELIB}/nvidia/cuda_nvrtc/lib" "${Python_SITEARCH}/nvidia/cuda_nvrtc/lib"
    NO_DEFAULT_PATH NO_CACHE)
  if(NOT KORVEX_NVRTC)
    return()
  endif()
  execute_process(
    COMMAND "${Python_EXECUTABLE}" "${korvex_compile_with_nvrtc}" "${KORVEX_NVRTC}" --list
    RESULT_VARIABLE failed OUTPUT_VARIABLE text ERROR_VARIABLE error)
  if(failed)
    message(STATUS "${KORVEX_NVRTC} cannot be used: ${error}")
    return()
  endif()
  string(REGEX MATCHALL "[0-9.]+" numbers "${text}")
  list(POP_FRONT numbers version)
  set(korvex_nvrtc_version "${version}" PARENT_SCOPE)
  set(korvex_nvrtc_architectures "${numbers}" PARENT_SCOPE)
  set(korvex_nvrtc "${KORVEX_NVRTC}" PARENT_SCOPE)
endfunction()

# --- Architectures

# The GPUs of this machine, as numbers; nothing where no driver answers.
function(korvex_present_architectures result)
  set(numbers "")
  find_program(KORVEX_NVIDIA_SMI nvidia-smi NO_CACHE)
  if(KORVEX_NVIDIA_SMI)
    execute_process(COMMAND "${KORVEX_NVIDIA_SMI}" --query-gpu=compute_cap --format=csv,noheader
      OUTPUT_VARIABLE text ERROR_QUIET)
    string(REPLACE "." "" text "${text}")
    string(REGEX MATCHALL "[0-9]+" numbers "${text}")
    list(REMOVE_DUPLICATES numbers)
  endif()
  set(${result} "${numbers}" PARENT_SCOPE)
endfunction()

function(korvex_wanted_architectures result)
  set(offered ${korvex_nvrtc_architectures} ${korvex_nvcc_architectures})
  list(REMOVE_DUPLICATES offered)
  if(KORVEX_CUDA_ARCHITECTURES STREQUAL "none" OR
     (KORVEX_CUDA_ARCHITECTURES STREQUAL "auto" AND NOT offered))
    set(wanted "")
  elseif(NOT offered)
    message(FATAL_ERROR "No compiler for device code was found: put nvcc on PATH, or run "
      "'scripts/fetch_cuda_compilers.sh PYTHON FOLDER' and pass -DKORVEX_CUDA_COMPILERS=FOLDER.")
  elseif(KORVEX_CUDA_ARCHITECTURES STREQUAL "all")
    set(wanted ${offered})
  elseif(KORVEX_CUDA_ARCHITECTURES STREQUAL "auto")
    korvex_present_architectures(wanted)
    if(NOT wanted)
      set(wanted 90)
    endif()
  else()
    set(wanted ${KORVEX_CUDA_ARCHITECTURES})
    foreach(number IN LISTS wanted)
      if(NOT number IN_LIST offered)
        message(FATAL_ERROR "KORVEX_CUDA_ARCHITECTURES asks for ${number}; the compilers found "
          "here offer: ${offered}.")
      endif()
    endforeach()
  endif()
  list(SORT wanted COMPARE NATURAL)
  set(${result} "${wanted}" PARENT_SCOPE)
endfunction()

# --- Compilation

# korvex_compile_kernels(SOURCE KIND NUMBER FOLDER FILE COMPILER DEPENDENCIES...): adds the command
# that makes FOLDER/korvex_sm_NUMBER.cubin (KIND is sm) or FOLDER/korvex_compute_NUMBER.ptx (KIND is
# compute) from SOURCE, and names the file and its compiler in the variables FILE and COMPILER.
function(korvex_compile_kernels source kind number folder file compiler)
  set(suffixes_sm cubin)
  set(suffixes_compute ptx)
  set(target "${folder}/korvex_${kind}_${number}.${suffixes_${kind}}")
  cmake_path(GET source PARENT_PATH source_folder)
  set(includes "-I${PROJECT_SOURCE_DIR}" "-I${source_folder}")
  if(number IN_LIST korvex_nvrtc_architectures)
    set(made_by "NVRTC ${korvex_nvrtc_version}")
    set(command "${Python_EXECUTABLE}" "${korvex_compile_with_nvrtc}" "${korvex_nvrtc}"
      "${source}" "${target}" "--gpu-architecture=${kind}_${number}" ${korvex_nvrtc_flags})
  else()
    set(made_by "nvcc ${korvex_nvcc_version}")
    set(command "${korvex_nvcc}" -ccbin "${CMAKE_CXX_COMPILER}" -${suffixes_${kind}}
      "${source}" -o "${target}" "-arch=${kind}_${number}" ${korvex_nvcc_flags})
  endif()
  add_custom_command(
    OUTPUT "${target}"
    COMMAND ${command} ${includes}
    DEPENDS "${source}" "${korvex_compile_with_nvrtc}" ${ARGN}
    COMMENT "kernels for ${kind}_${number} by ${made_by}"
    VERBATIM)
  set(${file} "${target}" PARENT_SCOPE)
  set(${compiler} "${made_by}" PARENT_SCOPE)
endfunction()

set(korvex_compile_with_nvrtc "${CMAKE_CURRENT_LIST_DIR}/compile_with_nvrtc.py")
