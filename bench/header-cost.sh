#!/usr/bin/env bash
# What including the public API costs an application: compiles a one-line
# program that includes <tesselzostream/tesselzostream.h> and one that
# includes only <iostream>, <memory> and <string>, with the same compiler
# and flags, RUNS times each (the fastest run of each kept, so that load
# from elsewhere on the machine counts as little as it can), and prints
# both times, their ratio against the goal, and how many headers each
# pulls in (g++ -H), of them how many are Boost and how many Boost.Thread
# or Boost.Filesystem.
#
# Usage: bench/header-cost.sh [runs]    (CXX, CXXFLAGS from the environment;
# TZ_INCLUDE, another tree's include folder, to measure that one instead)
# Writes only into a temporary folder, removed at exit.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cxx=${CXX:-g++}
runs=${1:-5}
flags=(-std=c++17 -O2 ${CXXFLAGS:-} -I"${TZ_INCLUDE:-$root/include}")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

printf '#include <tesselzostream/tesselzostream.h>\nint main() { return 0; }\n' >"$tmp/api.cpp"
printf '#include <iostream>\n#include <memory>\n#include <string>\nint main() { return 0; }\n' >"$tmp/std.cpp"

# Fastest of `runs` compilations of $1, in seconds.
fastest() {
  local best="" start end t
  for ((i = 0; i < runs; i++)); do
    start=$(date +%s%N)
    "$cxx" "${flags[@]}" -c "$1" -o "$tmp/out.o"
    end=$(date +%s%N)
    t=$((end - start))
    if [[ -z $best || $t -lt $best ]]; then best=$t; fi
  done
  awk -v ns="$best" 'BEGIN { printf "%.3f", ns / 1e9 }'
}

# "all boost thread+filesystem" header counts of $1's include tree.
headers() {
  "$cxx" "${flags[@]}" -H -fsyntax-only "$1" 2>&1 | grep '^\.\+ ' | awk '
    { n++ }
    /boost\// { b++ }
    /boost\/(thread|filesystem)[\/.]/ { tf++ }
    END { printf "%d %d %d", n, b, tf }'
}

api=$(fastest "$tmp/api.cpp")
std=$(fastest "$tmp/std.cpp")
read -r api_n api_b api_tf <<<"$(headers "$tmp/api.cpp")"
read -r std_n std_b std_tf <<<"$(headers "$tmp/std.cpp")"

echo "compiler: $("$cxx" --version | head -1); flags: ${flags[*]}; fastest of $runs"
printf '%-34s %7ss  %5d headers (%d Boost, %d Boost.Thread/Filesystem)\n' \
  "<tesselzostream/tesselzostream.h>" "$api" "$api_n" "$api_b" "$api_tf"
printf '%-34s %7ss  %5d headers (%d Boost, %d Boost.Thread/Filesystem)\n' \
  "<iostream> <memory> <string>" "$std" "$std_n" "$std_b" "$std_tf"
awk -v a="$api" -v s="$std" 'BEGIN { printf "ratio %.2f (goal <= 2)\n", a / s }'
