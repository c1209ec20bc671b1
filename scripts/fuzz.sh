#!/usr/bin/env bash
# Replays the kept inputs of the fuzzers, and then lets each fuzz for so many seconds (60 without an argument).
# What it finds new and interesting stays in the build folder; an input that breaks something is named.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
. "$root/scripts/setup.sh"
need_packages cmake clang libgtest-dev libssl-dev make
need_packages "libclang-rt-$(clang++ -dumpversion | cut -d . -f 1)-dev"

build=$(build_root "$root")/fuzz
prepare_build "$build" "$root"
cd "$root"
cmake --preset fuzz -B "$build"
cmake --build "$build" --parallel "$(nproc)" --target fuzzCycle fuzzReader fuzzTls

# FUZZER CORPUS SECONDS OPTION... beside the others, with a log of its own
fuzzers=()
fuzz() {
  local program=$build/tests/fuzz/$1 corpus=$2 seconds=$3 found=$build/found/$1 log=$build/$1.log
  shift 3
  mkdir -p "$found"
  {
    echo "== Replaying $corpus"
    "$program" "$@" -runs=0 "$corpus"
    echo "== Fuzzing for $seconds seconds"
    "$program" "$@" -max_total_time="$seconds" -timeout=10 -artifact_prefix="$build/" -print_final_stats=1 \
      "$found" "$corpus" 2>&1 | tail -n 20
  } >"$log" 2>&1 &
  fuzzers+=("$! $log")
}

# The buffers of received names are kept, so leaks are not looked for. A header may ask for any length;
# beyond 64 MiB there is no memory here.
ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=64:detect_leaks=0 \
  fuzz fuzzCycle tests/fuzz/corpus "${1:-60}" -detect_leaks=0 -malloc_limit_mb=4096 -rss_limit_mb=8192
fuzz fuzzReader tests/fuzz/readerCorpus "${1:-60}" -max_len=400
fuzz fuzzTls tests/fuzz/tlsCorpus "${1:-60}" -max_len=2000

status=0
for fuzzer in "${fuzzers[@]}"; do
  wait "${fuzzer%% *}" || status=$?
  cat "${fuzzer#* }"
done
exit $status
