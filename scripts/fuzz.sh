#!/usr/bin/env bash
# Replays the kept inputs of the fuzzer, and then fuzzes for so many seconds (60 without an argument).
# What it finds new and interesting stays in the build folder; an input that breaks something is named.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
. "$root/scripts/setup.sh"
need_packages cmake clang libgtest-dev make
need_packages "libclang-rt-$(clang++ -dumpversion | cut -d . -f 1)-dev"

build=$(build_root "$root")/fuzz
prepare_build "$build" "$root"
cd "$root"
cmake --preset fuzz -B "$build"
cmake --build "$build" --parallel "$(nproc)" --target fuzzCycle
mkdir -p "$build/found"

# The buffers of received names are kept, so leaks are not looked for. A header may ask for any length;
# beyond 64 MiB there is no memory here.
fuzzer=("$build/tests/fuzz/fuzzCycle" -detect_leaks=0 -malloc_limit_mb=4096 -rss_limit_mb=8192)
export ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=64:detect_leaks=0
echo "== Replaying tests/fuzz/corpus"
"${fuzzer[@]}" -runs=0 tests/fuzz/corpus
echo "== Fuzzing for ${1:-60} seconds"
"${fuzzer[@]}" -max_total_time="${1:-60}" -timeout=10 -artifact_prefix="$build/" -print_final_stats=1 \
  "$build/found" tests/fuzz/corpus 2>&1 | tail -n 20
