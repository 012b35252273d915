# SPDX-License-Identifier: Apache-2.0
# Compiler and linker flags of every C++ target: link `korvex_flags` and set none elsewhere.
#
# Results are defined bit by bit, so the floating-point rules stand here and only here: binary64,
# round to nearest even, no contraction of a*b+c, no fast-math, no flush to zero. A target may add
# an instruction set (-mfma -mavx2); under these rules that changes no bit. Neither errno nor the
# exception flags of floating point are read, so loops with a root or a choice may become vector code.

option(KORVEX_WERROR "Treat compiler warnings as errors" ON)
option(KORVEX_SANITIZE "Build everything under AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

# These arrive ahead of our own flags and bring a start-up object that sets flush-to-zero.
set(korvex_outside_flags "${CMAKE_CXX_FLAGS} ${CMAKE_SHARED_LINKER_FLAGS} ${CMAKE_MODULE_LINKER_FLAGS}")
if(korvex_outside_flags MATCHES "-(Ofast|ffast-math|funsafe-math-optimizations|mdaz-ftz)")
  message(FATAL_ERROR
    "${CMAKE_MATCH_0} would change results: take it out of CXXFLAGS and LDFLAGS.")
endif()

add_library(korvex_flags INTERFACE)
target_compile_features(korvex_flags INTERFACE cxx_std_20)
target_compile_options(korvex_flags INTERFACE
  -ffp-contract=off
  -fno-fast-math
  -fno-math-errno
  -fno-trapping-math
  -Wall
  -Wextra
  -Wconversion
  $<$<BOOL:${KORVEX_WERROR}>:-Werror>
  -fvisibility=hidden
  -fvisibility-inlines-hidden)

if(KORVEX_SANITIZE)
  target_compile_options(korvex_flags INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g)
  target_link_options(korvex_flags INTERFACE -fsanitize=address,undefined)
else()
  # A static C++ library: the built files work with whatever compiler built the rest of the process,
  # and share no C++ state with it. Some distributions ship the archive apart. The unwinder stays
  # the system's, libgcc_s: that is what ends threads, and a second one beside it does not know the
  # registers until an exception was thrown, and aborts.
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_LINK_OPTIONS -static-libstdc++)
  check_cxx_source_compiles(
    "#include <string>\nint main(int argc, char** argv) { return std::string(argv[0]).empty() + argc; }"
    KORVEX_HAS_STATIC_CXX_RUNTIME)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  if(KORVEX_HAS_STATIC_CXX_RUNTIME)
    target_link_options(korvex_flags INTERFACE -static-libstdc++)
  endif()
endif()

# korvex_export_only(TARGET PATTERN...): the shared object exports the symbols that match and
# nothing else. Hidden visibility alone is not enough: templates of std:: declare theirs default.
function(korvex_export_only target)
  set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
  list(JOIN ARGN "; " exported)
  file(CONFIGURE OUTPUT "${map}" CONTENT "{ global: ${exported}; local: *; };\n")
  target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
