#!/usr/bin/env bash
# Sets up, builds and runs the main job: a hub and several clients exchange files as messages.
# Arguments are passed on to the exchange program, see ./demo.sh --help.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$root/scripts/setup.sh"

# True when the arguments, options with a value each, name no file and do not ask for help.
without_files() {
  while [ $# -gt 0 ]; do
    case "$1" in
      --help | -h) return 1 ;;
      --*=*) shift ;;
      --*) shift; shift || true ;;
      *) return 1 ;;
    esac
  done
}

need_packages cmake g++ make

build=$root/build/demo
log=$build/build.log
mkdir -p "$build"
echo "== Building the exchange example in build/demo"
{
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DKLVMSG_BUILD_TESTS=OFF -DKLVMSG_BUILD_BENCHMARKS=OFF -DKLVMSG_INSTALL=OFF &&
    cmake --build "$build" --parallel "$(nproc)" --target exchange
} >"$log" 2>&1 || { cat "$log" >&2; exit 1; }

if without_files "$@"; then
  echo "== No files given: sending some of this repository and of the system"
  set -- "$@" "$root/README.md" "$root/CMakeLists.txt" "$build/libKLVMsgCommModules.so" \
    /etc/passwd /bin/bash
fi
echo "== Running: exchange $*"
exec "$build/examples/exchange/exchange" "$@"
