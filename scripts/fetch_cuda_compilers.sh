#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: fetch_cuda_compilers.sh PYTHON FOLDER
# Puts NVIDIA's compilers for device code into FOLDER, by pip: NVRTC 12.9, and nvcc 13.0 unless
# there is one on PATH. No toolkit, driver or GPU is needed to run them. Nothing is done twice.
set -euo pipefail

python=$1
folder=$2
wanted=('nvidia-cuda-nvrtc-cu12==12.9.*')
if ! command -v nvcc >/dev/null; then
  wanted+=('nvidia-cuda-nvcc==13.0.*' 'nvidia-nvvm==13.0.*' 'nvidia-cuda-crt==13.0.*'
    'nvidia-cuda-runtime==13.0.*' 'nvidia-cuda-cccl==13.0.*')
fi

if [ "${wanted[*]}" = "$(cat "$folder/fetched.txt" 2>/dev/null)" ]; then
  exit
fi
echo "fetching compilers for device code into $folder"
rm -rf "$folder"
"$python" -m pip install --quiet --disable-pip-version-check --no-deps --target "$folder" "${wanted[@]}"
if [ -d "$folder/nvidia/cu13/bin" ]; then
  chmod +x "$folder"/nvidia/cu13/bin/* "$folder"/nvidia/cu13/nvvm/bin/*
fi
echo "${wanted[*]}" >"$folder/fetched.txt"
