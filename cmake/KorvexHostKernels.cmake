# SPDX-License-Identifier: Apache-2.0
# The host kernels as a library, and the instruction sets for which it is compiled, from the oldest
# processors on, with the options that allow them to the compiler.

set(KORVEX_INSTRUCTION_SETS "all" CACHE STRING
  "Host kernels to build: 'all', which run on every processor as fast as they can; 'native', the base \
ones and those that this machine's processor takes; or a list that begins with base, as in base;fma")

# Every 64-bit Arm processor has a fused multiply-add and vectors of two doubles (NEON), which are in
# what compilers may use without an option: one library serves them all.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(KORVEX_ON_ARM ON)
  set(korvex_instruction_sets base)
else()
  set(KORVEX_ON_ARM OFF)
  set(korvex_instruction_sets base fma avx512)
endif()
# korvex_best_instruction_set(RESULT): the last that the processor of this machine runs. When crossing,
# CMake runs the program through CMAKE_CROSSCOMPILING_EMULATOR.
function(korvex_best_instruction_set result)
  get_filename_component(tree "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/.." ABSOLUTE)
  try_run(run_status compiles
    SOURCES "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/best_instruction_set.cpp"
    NO_CACHE
    CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${tree}"
    COMPILE_OUTPUT_VARIABLE compiler_output
    RUN_OUTPUT_STDOUT_VARIABLE best
    CXX_STANDARD 20)
  if(NOT compiles OR NOT run_status EQUAL 0)
    message(FATAL_ERROR "best_instruction_set.cpp does not compile or run here.\n${compiler_output}")
  endif()
  set(${result} "${best}" PARENT_SCOPE)
endfunction()

set(korvex_known_instruction_sets ${korvex_instruction_sets})
if(KORVEX_INSTRUCTION_SETS STREQUAL "native")
  korvex_best_instruction_set(korvex_best)
  set(korvex_instruction_sets base ${korvex_best})
  list(REMOVE_DUPLICATES korvex_instruction_sets)
elseif(NOT KORVEX_INSTRUCTION_SETS STREQUAL "all")
  set(korvex_instruction_sets ${KORVEX_INSTRUCTION_SETS})
  list(GET korvex_instruction_sets 0 korvex_first)
  set(korvex_unknown ${korvex_instruction_sets})
  list(REMOVE_ITEM korvex_unknown ${korvex_known_instruction_sets})
  if(korvex_unknown OR NOT korvex_first STREQUAL "base")
    message(FATAL_ERROR "KORVEX_INSTRUCTION_SETS is all, native, or a list that begins with base, out "
      "of: ${korvex_known_instruction_sets}; not ${KORVEX_INSTRUCTION_SETS}.")
  endif()
endif()

set(korvex_options_of_base)
set(korvex_options_of_fma -mfma -mavx2 -mf16c)
# Compilers prefer shorter registers, as early processors with AVX-512 slowed down for it. g++ 12 with
# AVX-512 stores {a, a, a, a} for the constant {a, a, a, 0} where it has put straight-line code into a
# vector (tests/cpp/test_sum.cpp fails then); the vectors that count are written as such, or in loops.
# clang++ 14 ends with a fault of its own on loops over bytes in long registers.
set(korvex_vector_width 512)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15)
  set(korvex_vector_width 256)
endif()
set(korvex_options_of_avx512
  -mfma -mavx2 -mf16c -mavx512f -mavx512dq -mavx512vl
  -mprefer-vector-width=${korvex_vector_width} -fno-tree-slp-vectorize)

get_filename_component(korvex_tree "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)

# The matrix product, by slices and by residues.
set(korvex_matrix_product_sources
  "${korvex_tree}/korvex/kernels/host/matrix_product.cpp"
  "${korvex_tree}/korvex/kernels/host/modular_lines.cpp"
  "${korvex_tree}/korvex/kernels/host/modular_plan.cpp"
  "${korvex_tree}/korvex/kernels/host/modular_product.cpp"
  "${korvex_tree}/korvex/kernels/host/some_lines.cpp"
  "${korvex_tree}/korvex/kernels/host/threads.cpp"
  "${korvex_tree}/korvex/kernels/modular/double_products.cpp"
  "${korvex_tree}/korvex/kernels/modular/double_recombination.cpp"
  "${korvex_tree}/korvex/kernels/modular/double_residues.cpp"
  "${korvex_tree}/korvex/kernels/modular/elements.cpp"
  "${korvex_tree}/korvex/kernels/modular/extents.cpp"
  "${korvex_tree}/korvex/kernels/modular/products.cpp"
  "${korvex_tree}/korvex/kernels/modular/recombination.cpp"
  "${korvex_tree}/korvex/kernels/modular/residues.cpp")

# korvex_add_host_kernels(TARGET OPTION...): needs KorvexFlags and Threads.
function(korvex_add_host_kernels target)
  set(folder "${korvex_tree}/korvex/kernels/host")
  add_library(${target} SHARED
    "${folder}/array_walk.cpp"
    "${folder}/converted_block.cpp"
    "${folder}/dot.cpp"
    "${folder}/exact.cpp"
    "${folder}/exact_axes.cpp"
    "${folder}/exact_column_sums.cpp"
    "${folder}/exact_elementary.cpp"
    "${folder}/exact_matrix_product.cpp"
    "${folder}/exact_moments.cpp"
    "${folder}/exact_parts.cpp"
    "${folder}/exact_prefix_sums.cpp"
    "${folder}/exact_result.cpp"
    "${folder}/exact_segments.cpp"
    "${folder}/exact_tiles.cpp"
    "${folder}/launch.cpp"
    ${korvex_matrix_product_sources}
    "${folder}/pairs.cpp"
    "${folder}/reductions.cpp"
    "${folder}/rms_norm.cpp"
    "${folder}/sum.cpp"
    "${folder}/unary.cpp")
  target_include_directories(${target} PRIVATE "${korvex_tree}")
  target_link_libraries(${target} PRIVATE korvex_flags Threads::Threads)
  target_compile_options(${target} PRIVATE ${ARGN})
  korvex_export_only(${target} "korvex_host_*")
endfunction()
