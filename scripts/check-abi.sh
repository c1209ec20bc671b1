#!/usr/bin/env bash
# Compares the binary interface with the baseline in abi/; with --accept, writes the baseline anew, of all
# libraries or of those that are named: check-abi.sh [--accept [LIBRARY...]]
#
# For each library, abi/*.symbols lists what it exports, with the version that brought it where that is
# not the first one, and abi/*.abi describes the functions and the
# types that its public headers hand out. Every difference fails, growth included: a baseline that
# lags behind would not notice when the addition goes away again.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/setup.sh

libraries=(KLVBase KLVMsgCommModules KLVMsgKit KLVMsgKitTls)
accepted=()
case "$#:${1:-}" in
  0:) ;;
  1:--accept) accepted=("${libraries[@]}") ;;
  *:--accept) accepted=("${@:2}") ;;
  *) echo "usage: check-abi.sh [--accept [LIBRARY...]]" >&2; exit 2 ;;
esac
for library in "${accepted[@]}"; do
  [[ " ${libraries[*]} " = *" $library "* ]] || { echo "there is no library $library" >&2; exit 2; }
done
need_packages cmake g++ make binutils abigail-tools libssl-dev

build=build/abi
mkdir -p "$build"
own='^(void )?(KLV|omi_|mem_|aio_|(VORFatalError|BtreeCompare|Startup|endl|printError)\()'

# Always built the same way, and with no path of this machine in the debugging information.
if ! { cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_COMPILER=g++ \
         -DCMAKE_CXX_FLAGS="-g -O1 '-ffile-prefix-map=$PWD=.'" -DKLVMSG_INSTALL=OFF \
         -DKLVMSG_BUILD_TESTS=OFF -DKLVMSG_BUILD_EXAMPLES=OFF -DKLVMSG_BUILD_BENCHMARKS=OFF &&
       cmake --build "$build" --parallel "$(nproc)"; } >"$build.log" 2>&1; then
  cat "$build.log" >&2
  exit 1
fi

# Only types from these headers count; everything else is nobody's business outside.
rm -rf "$build/headers"
mkdir "$build/headers"
cp KLVBase/ProtectedInterfaces/*.h KLVBase/Containers/*.h \
  KLVMsgCommServices/ProtectedInterfaces/*.h KLVMsgKit/ProtectedInterfaces/*.h \
  KLVMsgKitTls/ProtectedInterfaces/*.h "$build/headers"

describe() {  # LIBRARY: what it is now, in the build directory
  local file=$build/lib$1.so
  nm --dynamic --defined-only --format=posix "$file" | cut -d ' ' -f 1,2 | LC_ALL=C sort \
    >"$build/$1.symbols"
  abidw --headers-dir "$build/headers" --drop-private-types --exported-interfaces-only \
    --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash \
    --out-file "$build/$1.abi" "$file"
}

check_names() {  # LIBRARY: nothing foreign is exported
  local foreign
  foreign=$(cut -d ' ' -f 1 "$build/$1.symbols" | c++filt |
    sed -E 's/^(typeinfo name|typeinfo|vtable|VTT|guard variable) for //' | grep -vE "$own") || return 0
  printf 'lib%s exports names that are not the library'"'"'s own:\n%s\n' "$1" "$foreign"
  return 1
}

check_symbols() {  # LIBRARY
  local missing added
  cut -d ' ' -f 1,2 "abi/$1.symbols" >"$build/$1.accepted"
  missing=$(LC_ALL=C comm -23 "$build/$1.accepted" "$build/$1.symbols" | c++filt)
  added=$(LC_ALL=C comm -13 "$build/$1.accepted" "$build/$1.symbols" | c++filt)
  [ -z "$missing" ] || printf 'Symbols that lib%s no longer exports like this:\n%s\n' "$1" "$missing"
  [ -z "$added" ] || printf 'Symbols that lib%s newly exports:\n%s\n' "$1" "$added"
  [ -z "$missing$added" ]
}

check_types() {  # LIBRARY
  abidiff --no-show-locs "abi/$1.abi" "$build/$1.abi"
}

with_versions() {  # LIBRARY: its symbols, each with the version that it came with
  awk -v version="$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" '
    FILENAME == ARGV[1] { since[$1] = $3 == "" ? "" : " " $3; next }
    { print $0 ($1 in since ? since[$1] : version == "1.0.0" ? "" : " " version) }' \
    "abi/$1.symbols" "$build/$1.symbols"
}

failed=no
for library in "${libraries[@]}"; do
  describe "$library"
  check_names "$library" || failed=yes
done
[ $failed = no ] || exit 1

if [ ${#accepted[@]} -gt 0 ]; then
  for library in "${accepted[@]}"; do
    touch "abi/$library.symbols"
    with_versions "$library" >"$build/$library.accepted"
    mv "$build/$library.accepted" "abi/$library.symbols"
    cp "$build/$library.abi" abi/
  done
  echo "The baseline of ${accepted[*]} in abi/ is now the interface as it stands; commit it with the change."
  exit
fi

for library in "${libraries[@]}"; do
  echo "lib$library: $(wc -l <"$build/$library.symbols") symbols"
  check_symbols "$library" || failed=yes
  check_types "$library" || failed=yes
done
if [ $failed = yes ]; then
  echo
  echo "The binary interface differs from abi/. If it is meant to: scripts/check-abi.sh --accept" >&2
  exit 1
fi
echo "The binary interface is that of abi/."
