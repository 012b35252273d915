# SPDX-License-Identifier: Apache-2.0
# The interpreter, its headers, and how an extension module is made for it.
#
# A build for another processor, or for an interpreter that does not run here, names headers and
# suffix; the interpreter that is found then runs the scripts of the build alone.

set(KORVEX_PYTHON_INCLUDE "" CACHE PATH
  "Folder of the Python.h to compile with, where it is not that of the interpreter")
set(KORVEX_PYTHON_SUFFIX "" CACHE STRING
  "How the extension modules end then: cpython-314-aarch64-linux-gnu.so")

# A module for a free-threaded interpreter would compile in parts and fail in others.
function(korvex_refuse_free_threading)
  execute_process(
    COMMAND "${Python_EXECUTABLE}" -c
      "import sysconfig; print(sysconfig.get_config_var('Py_GIL_DISABLED') or 0)"
    OUTPUT_VARIABLE disabled OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(disabled STREQUAL "1" OR KORVEX_PYTHON_SUFFIX MATCHES "^cpython-[0-9]+d?t")
    message(FATAL_ERROR "korvex needs CPython with its global interpreter lock, and this is a "
      "free-threaded build: use the interpreter whose name does not end in t.")
  endif()
endfunction()

find_package(Python 3.12 REQUIRED COMPONENTS Interpreter)
korvex_refuse_free_threading()
if(NOT KORVEX_PYTHON_INCLUDE)
  # The headers alone. The interpreter that loads a module brings the symbols.
  find_package(Python 3.12 REQUIRED COMPONENTS Interpreter Development.Module)
elseif(NOT KORVEX_PYTHON_SUFFIX OR NOT EXISTS "${KORVEX_PYTHON_INCLUDE}/Python.h")
  message(FATAL_ERROR "KORVEX_PYTHON_INCLUDE wants a folder with Python.h, and "
    "KORVEX_PYTHON_SUFFIX beside it.")
endif()

# korvex_add_python_module(TARGET SOURCE...): a module under the name that the interpreter looks for.
function(korvex_add_python_module target)
  if(NOT KORVEX_PYTHON_INCLUDE)
    Python_add_library(${target} MODULE WITH_SOABI ${ARGN})
    return()
  endif()
  add_library(${target} MODULE ${ARGN})
  target_include_directories(${target} SYSTEM PRIVATE "${KORVEX_PYTHON_INCLUDE}")
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".${KORVEX_PYTHON_SUFFIX}")
endfunction()
