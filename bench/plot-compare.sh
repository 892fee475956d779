#!/bin/sh
# Draws the figures of a tz_compare_bench run as one SVG picture.
# Usage: bench/plot-compare.sh [FIGURES.csv [PICTURE.svg]]
#   defaults: bench/compare-latest.csv and docs/compare.svg
# Every system and workload the csv holds is drawn, in a fixed order.
# Needs gnuplot (Debian: gnuplot-nox) and awk.
set -e
here=$(cd "$(dirname "$0")" && pwd)
csv=${1:-$here/compare-latest.csv}
svg=${2:-$here/../docs/compare.svg}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

others=""
for s in sqlite lmdb ole2 zip tz-cf tz-batch tz-whole tz-pure tz-enc; do
  grep -q "^[^#][^,]*,$s,write," "$csv" && others="$others $s"
done
workloads=""
for w in W1 W2 W3 W4; do
  grep -q "^$w,plain,write," "$csv" && workloads="$workloads $w"
done
n=$(echo $others | wc -w)

# One table per figure: a row per workload, a column per system.
#   $1 phase, $2 column name in the csv, $3 output file, $4 systems
table() {
  awk -F, -v phase="$1" -v column="$2" -v systems="$4" -v workloads="$workloads" '
    /^#/ { next }
    $1 == "workload" { for (i = 1; i <= NF; i++) at[$i] = i; next }
    $3 == phase { value[$1 "/" $2] = $(at[column]) }
    END {
      ns = split(systems, s, " "); nw = split(workloads, w, " ")
      printf "workload"; for (j = 1; j <= ns; j++) printf " %s", s[j]; printf "\n"
      for (i = 1; i <= nw; i++) {
        printf "%s", w[i]
        for (j = 1; j <= ns; j++) {
          v = value[w[i] "/" s[j]]
          printf " %s", (v == "" || v == "nan" ? "NaN" : v)
        }
        printf "\n"
      }
    }' "$csv" > "$3"
}
table write speed_x_plain "$work/write.dat" "$others"
table read speed_x_plain "$work/read.dat" "$others"
table write disk_per_payload "$work/disk.dat" "plain $others"
table write peak_mib "$work/peak.dat" "plain $others"

# Each system keeps its colour from picture to picture; plain is line type 10.
i=1
for s in $others; do
  case $s in
    sqlite) c="#7e57c2" ;; lmdb) c="#8d6e63" ;; ole2) c="#d9a441" ;; zip) c="#6a9fd4" ;;
    tz-cf) c="#1b5e20" ;; tz-batch) c="#00897b" ;; tz-whole) c="#9ccc65" ;; tz-pure) c="#43a047" ;;
    *) c="#a5d6a7" ;;
  esac
  echo "set linetype $i lc rgb \"$c\"" >> "$work/colors.gp"
  i=$((i + 1))
done

# The date line of the csv names the run.
title=$(sed -n '1s/^# //p' "$csv")

gnuplot <<EOF
set terminal svg size 1100,820 dynamic noenhanced font "sans,11" background rgb "white"
set output "$svg"
set multiplot layout 2,2 title "$title"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set key outside below horizontal font ",10" samplen 1
set grid ytics
set xtics nomirror
load "$work/colors.gp"
set linetype 10 lc rgb "#8c8c8c"
set logscale y 2
set ylabel "plain time / system time"
set title "write speed relative to plain files (higher is faster)"
plot for [c=2:$((n + 1))] "$work/write.dat" using c:xtic(1) title columnhead, 1 with lines lc rgb "black" dt 2 notitle
set title "read speed relative to plain files (higher is faster)"
plot for [c=2:$((n + 1))] "$work/read.dat" using c:xtic(1) title columnhead, 1 with lines lc rgb "black" dt 2 notitle
unset logscale y
set yrange [0:*]
set ylabel "bytes on disk / payload bytes"
set title "bytes on disk over payload bytes (lower is better)"
plot "$work/disk.dat" using 2:xtic(1) title columnhead lt 10, for [c=3:$((n + 2))] "" using c title columnhead lt c-2, \
     1 with lines lc rgb "black" dt 2 notitle
set logscale y 2
set yrange [*:*]
set ylabel "MiB"
set title "peak resident memory of the write phase"
plot "$work/peak.dat" using 2:xtic(1) title columnhead lt 10, for [c=3:$((n + 2))] "" using c title columnhead lt c-2
unset multiplot
EOF
echo "wrote $svg"
