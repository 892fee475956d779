#!/bin/sh
# Runs one fuzz target at the lowest priority until it has had CPU_SECONDS
# of CPU time (not wall time: on a busy machine the two differ), then stops
# it and prints what it got: CPU time, executions, the last coverage line
# and the findings.
#
#   fuzz/long-run.sh BUILD_DIR TARGET CPU_SECONDS WORK_DIR
#
# TARGET is a short name from fuzz/targets. The committed seeds are copied
# into WORK_DIR/corpus, which libFuzzer then grows; findings go to
# WORK_DIR/artifacts, the log to WORK_DIR/log. Run again with the same
# WORK_DIR to go on from the corpus reached (the CPU time counts afresh).
#
# libFuzzer's -timeout is wall time, and a process at nice 19 on a loaded
# machine can wait for the CPU longer than that. So a timeout input is run
# once more at normal priority: when it finishes there within the limit it
# goes to WORK_DIR/starved and the run goes on from its corpus; a timeout
# that comes back, and any other finding, ends the run.
set -u
build=$1 target=$2 cpu=$3 work=$4
src=$(cd "$(dirname "$0")" && pwd)
bin=$build/fuzz/tz_fuzz_$target
maxlen=$(awk -v t="$target" '$1 == t { print $2 }' "$src/targets")
[ -n "$maxlen" ] || { echo "no target $target in $src/targets" >&2; exit 2; }
mkdir -p "$work/corpus" "$work/artifacts" "$work/starved"
cp -n "$src/seeds/$target/"* "$work/corpus/" 2>/dev/null || true
: >"$work/log"
total=0 rc=0 segments=0
while [ "$total" -lt "$cpu" ]; do
  segments=$((segments + 1))
  # Wall time only bounds a run that is starved of CPU for hours.
  nice -n 19 "$bin" -dict="$src/$target.dict" -max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 \
    -max_total_time=$(((cpu - total) * 6)) -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/" "$work/corpus" >>"$work/log" 2>&1 &
  pid=$!
  used=0
  while kill -0 "$pid" 2>/dev/null; do
    sleep 10
    now=$(ps -o times= -p "$pid" 2>/dev/null | tr -d ' ')
    [ -n "$now" ] && used=$now
    if [ $((total + used)) -ge "$cpu" ]; then
      kill -INT "$pid"
      break
    fi
  done
  rc=0
  wait "$pid" || rc=$?
  total=$((total + used))
  [ "$total" -ge "$cpu" ] && break
  starved=no
  for t in "$work"/artifacts/timeout-*; do
    [ -e "$t" ] || continue
    if timeout 60 "$bin" -timeout=10 "$t" >/dev/null 2>&1; then
      mv "$t" "$work/starved/"
      starved=yes
    fi
  done
  [ "$starved" = yes ] || break
done
echo "target:    $target"
echo "cpu time:  ${total}s in $segments segment(s)"
echo "exit:      $rc"
grep -E '^#[0-9]+' "$work/log" | tail -1 | sed 's/^/last line: /'
echo "executed:  $(grep -E '^stat::number_of_executed_units' "$work/log" | awk '{ s += $2 } END { print s }')"
echo "corpus:    $(ls "$work/corpus" | wc -l) inputs"
echo "starved:   $(ls "$work/starved" | wc -l) timeouts that did not come back at normal priority"
echo "slow:      $(ls "$work/artifacts" | grep -c "^slow-unit-") inputs over 10 s (logged by libFuzzer, not findings)"
echo "findings:  $(ls "$work/artifacts" | grep -vc "^slow-unit-")"
ls "$work/artifacts"
