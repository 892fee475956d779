#!/bin/sh
# Runs the tzcf tool built in BUILD_DIR on tools/sample: packs it into a
# compound file, lists it, checks it, unpacks it into a scratch folder and
# compares that with the sample. Each step is printed before it runs; the
# script stops with a non-zero status at the first step that fails, and
# removes its scratch folder either way.
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 BUILD_DIR" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
sample=$here/sample
tzcf=$1/tools/tzcf/tzcf
if [ ! -x "$tzcf" ]; then
  echo "demo: $tzcf is not built" >&2
  exit 2
fi
scratch=$(mktemp -d "${TMPDIR:-/tmp}/tzcf-demo.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
file=$scratch/sample.tzcf

# step TEXT COMMAND...: prints TEXT, runs COMMAND, stops the script if it fails.
step() {
  text=$1
  shift
  printf '\n$ %s\n' "$text"
  "$@" || { echo "demo: failed: $text" >&2; exit 1; }
}

step "tzcf pack tools/sample sample.tzcf" "$tzcf" pack "$sample" "$file"
step "tzcf ls -l sample.tzcf" "$tzcf" ls -l "$file"
step "tzcf check sample.tzcf" "$tzcf" check "$file"
step "tzcf unpack sample.tzcf unpacked" "$tzcf" unpack "$file" "$scratch/unpacked"
step "diff -r tools/sample unpacked" diff -r "$sample" "$scratch/unpacked"
printf '\ndemo: the unpacked folder equals tools/sample\n'
