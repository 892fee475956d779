#!/bin/sh
# Sizes of a source tree, for comparing two commits: C++ files, their
# median length, functions, and how many of them run over 40 lines (by
# universal-ctags' end lines, Debian's universal-ctags).
# Usage: tools/structure.sh [TREE [PATHS]]   e.g. tools/structure.sh . "blockstore checker sources"
cd "${1:-.}" || exit 2
files=$(git ls-files -- ${2:-.} | grep -E '\.(cpp|h)$')
echo "$files" | xargs wc -l | grep -v ' total$' | awk '{print $1}' | sort -n | awk '{a[NR]=$1} END {printf "files %d, median %d lines\n", NR, (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'
echo "$files" | xargs ctags -x --_xformat='%K %n %{end}' --kinds-c++=f --language-force=c++ -f - 2>/dev/null |
  awk '$3 != "" {n++; if ($3 - $2 + 1 > 40) long++} END {printf "functions %d, over 40 lines %d (%.1f%%)\n", n, long, 100*long/n}'
