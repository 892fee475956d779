#!/bin/sh
# Runs the tzcf tool built in BUILD_DIR on tools/sample: packs it into a
# compound file, lists it, checks it, unpacks it into a scratch folder and
# compares that with the sample; then removes a stream, compacts the file in
# place, scrubs it, salvages a copy whose tail was cut off, and checks
# each result. Each step is printed before it runs; the
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

first=$("$tzcf" ls "$file" | head -n 1)
step "tzcf rm sample.tzcf $first" "$tzcf" rm "$file" "$first"
step "tzcf compact sample.tzcf" "$tzcf" compact "$file"
step "tzcf scrub sample.tzcf" "$tzcf" scrub "$file"
step "tzcf check sample.tzcf" "$tzcf" check "$file"
# A copy that lost its last three blocks, as a broken transfer leaves it:
# salvage copies out what holds together and says what was lost (exit 1).
size=$(wc -c < "$file")
head -c $((size - 3 * 1024)) "$file" > "$scratch/cut.tzcf"
step "tzcf salvage cut.tzcf saved.tzcf" sh -c '"$1" salvage "$2" "$3"; [ $? -le 1 ]' sh "$tzcf" "$scratch/cut.tzcf" "$scratch/saved.tzcf"
step "tzcf check saved.tzcf" "$tzcf" check "$scratch/saved.tzcf"
printf '\ndemo: compacted, scrubbed and salvaged files are sound\n'
