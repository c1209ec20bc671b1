#!/usr/bin/env bash
# Sets up, builds and runs the main job: a hub and several clients exchange files as messages.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
. "$root/scripts/setup.sh"
build=$(build_root "$root")/demo
program=$build/examples/exchange/exchange

print_help() {
  cat <<EOF
usage: demo.sh [OPTION]... [--] [FILE]...

Installs what is missing, builds the exchange example, and runs it with these arguments: on the
library's own interface, and by a session, or in the way that is asked for. Each tells what moved, and
in what time. Without a FILE three clients send some files of this repository and of the system, in
chunks of 64 KiB. The example is built in
$build,
or below the folder that the variable KLVMSG_BUILD_DIR names.

EOF
  sed -n '/usage = R"(/,/^)";/{s/.*usage = R"(//;/^)";/d;p;}' "$root/examples/exchange/main.cpp"
}

# Whether the arguments name a file. The program's help tells its options, and which have a value.
names_files() {
  local options parsed
  options=$("$program" --help |
    sed -nE 's/^ +(-., )?--([a-z-]+) [A-Z].*/\2:/p; t; s/^ +(-., )?--([a-z-]+).*/\2/p' | paste -sd,)
  parsed=$(getopt --options h --longoptions "$options" -- "$@" 2>/dev/null) || return 0
  [ "${parsed% --}" = "$parsed" ]
}

for argument in "$@"; do
  case $argument in
    --) break ;;
    --help | -h) print_help; exit ;;
  esac
done

need_packages cmake g++ make
prepare_build "$build" "$root"
echo "== Building the exchange example in $build (a minute or so the first time)"
: >"$build/build.log"
run_logged "$build/build.log" cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
  -DKLVMSG_BUILD_TESTS=OFF -DKLVMSG_BUILD_BENCHMARKS=OFF -DKLVMSG_INSTALL=OFF
run_logged "$build/build.log" cmake --build "$build" --parallel "$(nproc)" --target exchange

if ! names_files "$@"; then
  echo "== No files given: sending some of this repository and of the system"
  # For each of three clients a small one, and a large one in a few dozen messages.
  set -- --clients 3 --chunk 64 "$@" "$root/README.md" "$root/CMakeLists.txt" /etc/passwd /bin/bash
  # Without a space in their names, and among those that the program itself has.
  for library in $(ldd "$program" | awk '$1 ~ /^lib(c|stdc[+][+])[.]so/ { print $3 }'); do
    set -- "$@" "$library"
  done
fi
# In both ways, unless one is asked for.
case " $* " in
  *" --by"[\ =]*) ways=("") ;;
  *) ways=("--by=task" "--by=session") ;;
esac
for way in "${ways[@]}"; do
  echo "== Running: exchange ${way:+$way }$*"
  "$program" ${way:+"$way"} "$@"
done
