# SPDX-License-Identifier: Apache-2.0
# One command per purpose, over CMake and pip. `make help` lists them.
#
# Everything lands in $(VENV) and build/. Stamps say what is done already, so a second run repeats
# only what has changed. VENV=none builds for the interpreter PYTHON as it is and downloads nothing.

VENV ?= .venv
PYTEST_ARGS ?=
JOBS ?= $(shell nproc)
export VENV PYTHON

SHELL := bash
.SHELLFLAGS := -euo pipefail -c
.DEFAULT_GOAL := help
.DELETE_ON_ERROR:
MAKEFLAGS += --no-builtin-rules --no-print-directory

ifeq ($(VENV),none)
PY := $(or $(shell VENV=none PYTHON='$(PYTHON)' scripts/find_python.sh),$(error no usable Python))
SITE := build/site-packages
STAMP := build/installed
export PYTHONPATH := $(abspath $(SITE)):$(abspath tools)
else
PY := $(VENV)/bin/python
SITE :=
STAMP := $(VENV)/korvex-installed
export PATH := $(abspath $(VENV)/bin):$(PATH)
endif
# Read in recipes only, when the environment exists: builds for two interpreters do not mix.
BUILD = build/$(shell $(PY) -c 'import sys; print(sys.implementation.cache_tag)')

# A program of tools/. -P: the tree must not shadow the installed package.
TOOL = $(PY) -P -m korvex_tools
# Keeps the time of a part of `make test` in build/times.
TIMED := scripts/timed.sh

# What the installed package is made from. Folders are named for files that go.
SOURCES := CMakeLists.txt pyproject.toml LICENSE $(shell find cmake korvex -name __pycache__ -prune \
  -o \( -type d -o -type f \) -print)
CODE_FOLDERS := $(wildcard korvex tests tools examples benchmarks)
CXX_FILES := $(shell find $(CODE_FOLDERS) \( -name '*.cpp' -o -name '*.h' -o -name '*.cu' \
  -o -name '*.cuh' \) -print)
# Device code is read through the host build of tests/device_code.
HEADERS := $(filter %.h %.cuh %.cu,$(CXX_FILES))
TIDY_STAMPS := $(patsubst %,build/tidy/%.ok,$(filter %.cpp,$(CXX_FILES)))

.PHONY: help demo interface test check environment install cpp-tests cross-tests python-tests test-long leaks fuzz soak \
  mutation mutation-long \
  sanitize device-code device-code-long device-code-tools verify verify-long verify-arm verify-elementary \
  figures gallery gpu site lint extras constraints format-check tidy configure \
  format wheel wheels clean distclean

help: ## this list
	@sed -n 's/^\([a-z-]*\):.*## /make \1\t/p' Makefile | expand -t 16

demo: install ## build, install and run the demonstration
	@$(PY) examples/demo.py

# TIMES=--write puts the table of times into docs/testing.md.
TIMES ?=

test: check cross-tests lint site ## what CI runs: build, tests, C++ tests for Arm, format, lint and the site
	@$(TOOL).times_of_tests $(TIMES)
	@echo "make test: format and lint are clean"
	@$(TOOL).report_tests C++=build/ctest.xml Python=build/pytest.xml

check: cpp-tests python-tests ## build and run all tests, without format and lint
	@$(TOOL).report_tests C++=build/ctest.xml Python=build/pytest.xml

# --- Environment and build

environment:
ifneq ($(VENV),none)
	@$(TIMED) set-up scripts/set_up_environment.sh $(VENV)
endif

install: environment
	@$(MAKE) --silent $(STAMP)

$(STAMP): $(SOURCES) scripts/install_tree.sh
	@mkdir -p build
	@$(TIMED) build scripts/install_tree.sh $(PY) $(BUILD) $(SITE)
	@touch $@

# The C++ tests join the build folder of the wheel, so nothing is compiled twice.
configure: install
	@cmake -S . -B $(BUILD) -DKORVEX_BUILD_TESTS=ON >build/configure.log || \
	  { cat build/configure.log; exit 1; }

# With kernels for every architecture; in a build folder of its own, as the other one keeps its few.
wheel: environment ## a wheel in dist/, with the kernels for all GPUs
	@scripts/fetch_cuda_compilers.sh $(PY) build/cuda-compilers
	@CXX=$$(scripts/find_compiler.sh) $(PY) -m pip wheel --quiet --no-deps --no-build-isolation --no-index \
	  --config-settings build-dir=build/wheel \
	  --config-settings cmake.define.KORVEX_INSTRUCTION_SETS=all \
	  --config-settings cmake.define.KORVEX_CUDA_ARCHITECTURES=all \
	  --config-settings cmake.define.KORVEX_CUDA_COMPILERS=$(CURDIR)/build/cuda-compilers \
	  --wheel-dir dist .
	@ls dist/*.whl

# Without device code, which no extra has to do with.
extras: install ## each extra of the wheel, from the file, in an environment of its own (minutes, gigabytes)
	@CXX=$$(scripts/find_compiler.sh) $(PY) -m pip wheel --quiet --no-deps --no-build-isolation --no-index \
	  --config-settings cmake.define.KORVEX_INSTRUCTION_SETS=all \
	  --config-settings cmake.define.KORVEX_QUICK_BUILD=OFF \
	  --config-settings build-dir=$(BUILD) --wheel-dir build/extras .
	@$(TOOL).try_extras build/extras/*.whl $(EXTRAS)

constraints: environment ## constraints.txt from the environment: the versions that set-up installs
	@scripts/write_constraints.sh $(PY)

# WHEELS="--processors x86_64 --versions 3.14 --architectures 90" makes some of them.
WHEELS ?=

wheels: ## wheels for x86-64 and Arm and CPython 3.12 to 3.14 in dist/, each checked and tried
	@scripts/set_up_environment.sh $(VENV) test dev docs release
	@$(TOOL).wheels $(WHEELS) -- $(PYTEST_ARGS)

# --- Tests

cpp-tests: configure
	@$(TIMED) cpp-build cmake --build $(BUILD) --parallel $(JOBS)
	@$(TIMED) cpp-tests ctest --test-dir $(BUILD) --no-tests=error --output-on-failure --parallel $(JOBS) \
	  --output-junit $(CURDIR)/build/ctest.xml

cross-tests: environment ## C++ tests for 64-bit Arm under qemu and by clang++, where these are there
	@$(TIMED) cross-tests scripts/cross_tests.sh $(JOBS)

# -P: the tree must not shadow the installed package. No test collected is a failure.
python-tests: install
	@$(TIMED) python-tests $(PY) -P -m pytest -n $(JOBS) $(PYTEST_ARGS) --junitxml=build/pytest.xml

test-long: install ## the Python tests that take minutes and do not run otherwise
	@$(PY) -P -m pytest -m long $(PYTEST_ARGS)

leaks: install ## ten thousand calls of every function: memory, references and tensors stay flat
	@$(PY) -P -m pytest -m long tests/runtime/test_leaks.py \
	  tests/runtime/test_leaks_of_all.py tests/exact/test_leaks.py $(PYTEST_ARGS)

FUZZ_SEED ?= $(shell date +%s)
FUZZ_SECONDS ?= 500

fuzz: install ## random calls on module and reference; FUZZ_SECONDS=500, FUZZ_SEED=the time
	@PYTHONPATH=$(abspath tests/support)$${PYTHONPATH:+:$$PYTHONPATH} \
	  $(PY) -P tests/fuzz/fuzz_module.py --seed $(FUZZ_SEED) --seconds $(FUZZ_SECONDS)

SOAK_SEED ?= $(shell date +%s)
SOAK_SECONDS ?= 3600

soak: install ## all functions on threads, with interrupts and failing allocations; SOAK_SECONDS=3600
	@PYTHONPATH=$(abspath tests/support):$(abspath tools)$${PYTHONPATH:+:$$PYTHONPATH} \
	  $(PY) -P tests/fuzz/soak.py --seed $(SOAK_SEED) --seconds $(SOAK_SECONDS)

# A run that was ended goes on where it was; MUTATION_ARGS="--files '*/norm.h' --all" tries one header.
MUTATION_ARGS ?=

mutation: install ## plant faults in the arithmetic and run their tests: a sample (minutes)
	@$(TOOL).mutation --sample 60 $(MUTATION_ARGS)

mutation-long: install ## the same with every fault there is (many hours)
	@$(TOOL).mutation --all $(MUTATION_ARGS)

sanitize: environment ## all tests on a build under AddressSanitizer and UndefinedBehaviorSanitizer
	@scripts/run_sanitized.sh $(PY) $(PYTEST_ARGS)

# Without nvcc on PATH both say that the PTX is skipped.
device-code: device-code-tools ## run the kernels and their PTX on the host, checked at every access (minutes)
	@$(RUN_DEVICE_CODE)

device-code-long: device-code-tools ## the same with larger arrays, more seeds and every architecture
	@scripts/fetch_cuda_compilers.sh $(PY) build/cuda-compilers || true  # what is missing is said below
	@$(RUN_DEVICE_CODE) --long --nvrtc build/cuda-compilers/nvidia/cuda_nvrtc/lib/libnvrtc.so.12

RUN_DEVICE_CODE = $(PY) tests/ptx/run_device_code.py $(BUILD)/tests/ptx/run_ptx \
  $(BUILD)/korvex/kernels/host/libkorvex_host_kernels_base.so $(BUILD)/tests/ptx/ptx \
  --grid $(BUILD)/tests/device_code

device-code-tools: configure
	@cmake --build $(BUILD) --parallel $(JOBS) --target run_ptx run_grid run_last_tries_grid run_faulty_grid \
	  korvex_host_kernels_base >build/device-code.log || \
	  { cat build/device-code.log; exit 1; }

VERIFY_ARGS ?=

verify: install ## are the bits the same here: every promised function against tests/golden
	@$(TOOL).verify $(VERIFY_ARGS)

verify-long: install ## the same with a million values per kernel; adds a report to docs/verification/
	@$(TOOL).verify --long --record $(VERIFY_ARGS)
	@$(TOOL).verify.report

# The tests of the arithmetic seen from Python; others go the same way.
VERIFY_ARM_TESTS ?= tests/limbs tests/reductions tests/elementwise tests/golden

# An hour or more, and root's rights: see scripts/make_arm_root.sh.
verify-arm: install ## the same on 64-bit Arm, emulated by qemu, and Python tests there; adds a report
	@scripts/verify_arm.sh $(PY) "$(or $(SITE),$(shell $(PY) -I -c \
	  'import sysconfig; print(sysconfig.get_path("platlib"))'))" $(JOBS) $(VERIFY_ARM_TESTS)

# Some minutes: error bounds worked out anew, then ten million arguments of each function.
verify-elementary: install ## exp, log, sqrt, sigmoid and tanh against MPFR, bit for bit
	@$(TOOL).elementary.check_bounds
	@$(TOOL).elementary.verify

# With nothing else on the machine; what it wrote is committed together. FIGURES="--only PART..."
# makes some parts anew, FIGURES=--quick tries all in build/figures.
FIGURES ?=

interface: install ## write __all__, the stub and the names of the reference pages from the rows
	@$(TOOL).write_interface
	@$(MAKE) --silent install

figures: install ## measure and draw every figure of the documents anew (under 25 minutes)
	@$(TOOL).figures.make $(FIGURES)

gallery: install ## run the programs of docs/gallery, draw what they print, put programs into pages
	@$(TOOL).gallery

# One call, under ten minutes, on a machine with a GPU: downloads nothing. GPU_ARGS="--only 'tqx_*'" runs
# some of the stages.
GPU_ARGS ?=

gpu: ## all that needs a GPU: tests, checks and figures, as one report in benchmarks/results/
	@scripts/gpu_run.sh $(GPU_ARGS)

# --- Documents

site: install ## the documents and the reference as web pages, in build/site
	@$(TIMED) site scripts/build_site.sh $(PY) build/site
	@echo "site: build/site/index.html"

# --- Format and lint

lint: configure ## clang-format, ruff and clang-tidy
	@$(TIMED) lint $(MAKE) --silent format-check tidy

format-check: environment
	@clang-format --dry-run -Werror --ferror-limit=1 $(CXX_FILES)
	@ruff check .
	@ruff format --check .

tidy: configure
	@$(PY) scripts/tidy_commands.py $(BUILD)/compile_commands.json build/tidy
	@$(MAKE) --silent -j$(JOBS) $(TIDY_STAMPS)

build/tidy/%.ok: % $(HEADERS) .clang-tidy
	@echo "clang-tidy $<"
	@clang-tidy -p build/tidy --quiet $<
	@mkdir -p $(@D)
	@touch $@

format: environment ## rewrite all files in the project's format
	@clang-format -i $(CXX_FILES)
	@ruff check --fix .
	@ruff format .

# --- Cleaning

clean: ## remove what was built
	@rm -rf build dist $(STAMP)

distclean: clean ## and the environment
	@rm -rf .venv
