#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: build_site.sh PYTHON TARGET_FOLDER [SOURCE_FOLDER]
# Builds the site of docs/, or of another source folder, anew. A warning is an error, a link that
# leads nowhere and a page that no list names among them. Fetches nothing.
set -euo pipefail

python=$1
target=$2
source=${3:-$(cd "$(dirname "$0")/../docs" && pwd)}

rm -rf "$target"
# -P: the tree must not shadow the installed package, whose names the reference pages show.
# The folder of conf.py comes first: its extension lies beside it.
PYTHONPATH=$source${PYTHONPATH:+:$PYTHONPATH} \
  "$python" -P -m sphinx --builder html --fail-on-warning --keep-going --quiet "$source" "$target"
