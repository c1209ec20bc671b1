#!/usr/bin/env bash
# Sets up, builds and runs all benchmarks, and prints what they found beside what they must reach.
# bench.sh [--output FILE.json] [--document]: --document puts table and plots into docs/ as well.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
. "$root/scripts/setup.sh"

build=$(build_root "$root")/bench
output=$build/results.json
document=
while [ $# -gt 0 ]; do
  case "$1" in
    --output) output=$(realpath -m "$2"); shift 2 ;;
    --document) document=--document; shift ;;
    *) echo "usage: bench.sh [--output FILE.json] [--document]" >&2; exit 2 ;;
  esac
done
need_packages cmake g++ make libbenchmark-dev gnuplot-nox python3 valgrind \
  -- libboost-dev libnng-dev libzmq3-dev

prepare_build "$build" "$root"
mkdir -p "$build/json"
echo "== Building in $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKLVMSG_BUILD_TESTS=OFF \
  -DKLVMSG_BUILD_EXAMPLES=OFF -DKLVMSG_INSTALL=OFF | grep -i "left out" || true
cmake --build "$build" --parallel "$(nproc)" >"$build/build.log" 2>&1 ||
  { cat "$build/build.log" >&2; exit 1; }

programs=(exchange cycle map queue lock task)
rm -f "$build"/json/*.json
for i in "${!programs[@]}"; do
  echo "== $((i + 1)) of 7: ${programs[i]} ($(date +%T))"
  "$build/benchmarks/bench${programs[i]}" --benchmark_out="$build/json/${programs[i]}.json" \
    --benchmark_out_format=json >"$build/json/${programs[i]}.log" 2>&1 ||
    { cat "$build/json/${programs[i]}.log" >&2; exit 1; }
done

# Two runs of different length: the difference is the messages, without what stands around them.
echo "== 7 of 7: instructions ($(date +%T))"
instructions() {  # PATH COUNT: executed within Measured
  valgrind --tool=callgrind --collect-atstart=no --toggle-collect=Measured \
    --callgrind-out-file=/dev/null "$build/benchmarks/instructions" "$1" "$2" 2>&1 |
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}
for path in send receive queue_and_transmit wait_and_receive; do
  echo "$path $((($(instructions "$path" 2000) - $(instructions "$path" 1000)) / 1000))"
done >"$build/json/instructions.txt"

python3 "$root/scripts/bench_report.py" --input "$build/json" --output "$output" \
  --plots "$build" --root "$root" $document
