#!/bin/sh
# Writes the committed seed corpora (fuzz/seeds/<target>/) and dictionaries
# (fuzz/<target>.dict) again, from the seeds programs of a fuzz build:
#
#   fuzz/make-seeds.sh BUILD_DIR
#
# Every seed is a file the library itself wrote (with the target's header
# in front where it has one); each is a few KB. Timestamps in the
# directories make the bytes differ from one run to the next.
set -eu
build=$1
src=$(cd "$(dirname "$0")" && pwd)
for target in compoundfile check salvage streamformats blockmap unpack; do
  rm -rf "$src/seeds/$target"
  mkdir -p "$src/seeds/$target"
done
"$build/fuzz/tz_fuzz_seeds" "$src/seeds/compoundfile" "$src/compoundfile.dict" >/dev/null
# The check reads the same format: the same dictionary.
cp "$src/compoundfile.dict" "$src/check.dict"
"$build/fuzz/tz_fuzz_check_seeds" "$src/seeds/check"
cp "$src/compoundfile.dict" "$src/salvage.dict"
"$build/fuzz/tz_fuzz_salvage_seeds" "$src/seeds/salvage"
"$build/fuzz/tz_fuzz_streamformats_seeds" "$src/seeds/streamformats" "$src/streamformats.dict"
"$build/fuzz/tz_fuzz_blockmap_seeds" "$src/seeds/blockmap" "$src/blockmap.dict"
"$build/fuzz/tz_fuzz_unpack_seeds" "$src/seeds/unpack" "$src/unpack.dict"
du -sk "$src/seeds"/* "$src/seeds" | sed 's/^/KB /'
