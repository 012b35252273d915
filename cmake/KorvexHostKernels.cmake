# SPDX-License-Identifier: Apache-2.0
# The host kernels as a library, and the instruction sets for which it is compiled, from the oldest
# processors on, with the options that allow them to the compiler.

# Every 64-bit Arm processor has a fused multiply-add and vectors of two doubles (NEON), which are in
# what compilers may use without an option: one library serves them all.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(KORVEX_ON_ARM ON)
  set(korvex_instruction_sets base)
else()
  set(KORVEX_ON_ARM OFF)
  set(korvex_instruction_sets base fma avx512)
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
