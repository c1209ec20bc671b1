#!/usr/bin/env bash
# Sets up, builds and runs all benchmarks, and prints what they found beside what they must reach.
# bench.sh [--runs N] [--output FILE.json] [--document]: several runs show how far a figure spreads;
# --document puts table and plots into docs/ as well.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
. "$root/scripts/setup.sh"

build=$(build_root "$root")/bench
output=$build/results.json
runs=1
document=
while [ $# -gt 0 ]; do
  case "$1 ${2:-}" in
    --output\ ?*) output=$(realpath -m "$2"); shift 2 ;;
    --runs\ [1-9]*) runs=$2; shift 2 ;;
    --document\ *) document=--document; shift ;;
    *) echo "usage: bench.sh [--runs N] [--output FILE.json] [--document]" >&2; exit 2 ;;
  esac
done
need_packages cmake g++ make libbenchmark-dev gnuplot-nox python3 \
  -- iproute2 libboost-dev libnng-dev libzmq3-dev valgrind

prepare_build "$build" "$root"
echo "== Building in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKLVMSG_BUILD_TESTS=OFF \
  -DKLVMSG_BUILD_EXAMPLES=OFF -DKLVMSG_INSTALL=OFF | grep -i "left out" || true
cmake --build "$build" --parallel "$(nproc)" >"$build/build.log" 2>&1 ||
  { cat "$build/build.log" >&2; exit 1; }

instructions() {  # PATH COUNT: executed within Measured
  valgrind --tool=callgrind --collect-atstart=no --toggle-collect=Measured \
    --callgrind-out-file=/dev/null "$build/benchmarks/instructions" "$1" "$2" 2>&1 |
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}

# Two counts of messages: the difference is theirs, without what stands around them.
count_instructions() {
  local path
  command -v valgrind >/dev/null || return 0
  for path in send receive queue_and_transmit wait_and_receive; do
    echo "$path $((($(instructions "$path" 2000) - $(instructions "$path" 1000)) / 1000))"
  done
}

measure() {  # FOLDER
  local program
  mkdir -p "$1"
  for program in exchange cycle map queue lock task; do
    echo "$program ($(date +%T))"
    "$build/benchmarks/bench$program" --benchmark_out="$1/$program.json" \
      --benchmark_out_format=json >"$1/$program.log" 2>&1 || { cat "$1/$program.log" >&2; exit 1; }
  done
  echo "instructions ($(date +%T))"
  count_instructions >"$1/instructions.txt"
}

rm -rf "$build"/run-*
for run in $(seq "$runs"); do
  echo "== Run $run of $runs"
  measure "$build/run-$run"
done
python3 "$root/scripts/bench_report.py" --input "$build"/run-* --output "$output" \
  --plots "$build" --root "$root" $document
python3 "$root/scripts/session_bench.py" "$build" --runs "$runs" $document
