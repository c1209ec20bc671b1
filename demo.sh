#!/usr/bin/env bash
# Sets up, builds and runs the main job: a hub and several clients exchange files as messages.
# Arguments are passed on to the exchange program, see ./demo.sh --help.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$root/scripts/setup.sh"

need_packages cmake g++ make

build=$root/build/demo
echo "== Building the exchange example in build/demo"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
  -DKLVMSG_BUILD_TESTS=OFF -DKLVMSG_BUILD_BENCHMARKS=OFF >"$build.log" 2>&1 ||
  { cat "$build.log" >&2; exit 1; }
cmake --build "$build" --parallel "$(nproc)" --target exchange >"$build.log" 2>&1 ||
  { cat "$build.log" >&2; exit 1; }

# Without files of the caller's: some of this repository and of the system.
case " $* " in
  *" --help "*) has_files=yes ;;
  *) has_files=no ;;
esac
previous=
for argument in "$@"; do
  case "$previous$argument" in
    --*) ;;                      # an option, or the value of one
    *) has_files=yes ;;
  esac
  previous=
  case "$argument" in --*=*) ;; --*) previous=$argument ;; esac
done
files=()
if [ "$has_files" = no ]; then
  files=("$root/README.md" "$root/CMakeLists.txt" "$build/libKLVMsgCommModules.so"
         /etc/passwd /bin/bash)
fi
echo "== Running: exchange $* ${files[*]}"
exec "$build/examples/exchange/exchange" "$@" "${files[@]}"
