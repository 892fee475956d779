#!/bin/sh
# Remakes the pictures of docs/ from real files the library writes.
# Usage: docs/make-pictures.sh BUILD_DIR   (a build with the examples)
set -e
build=${1:?usage: docs/make-pictures.sh BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"$build/examples/tz_example_basic" "$scratch/sample.tzcf" >/dev/null
python3 "$here/../tools/draw_blocks.py" "$scratch/sample.tzcf" "$here/blocks.svg"
echo "wrote $here/blocks.svg"
