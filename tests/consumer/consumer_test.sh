#!/usr/bin/env bash
# Builds the README's program in one way, in a directory of its own, and runs it:
#   consumer_test.sh find_package|pkg_config|moved|subproject|fetched|unity|own_base LIBRARY_BUILD
# LIBRARY_BUILD is a finished build of the library; the first three install it into a new prefix.
set -euo pipefail
way=$1 library_build=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source=$(cd "$here/../.." && pwd)
project=$library_build/tests/readme/project  # the program, and how the README builds it
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
compiler=${CXX:-g++}
as_one_source=(-DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=0)

say_and_fail() {
  echo "$*" >&2
  exit 1
}

install_library() {
  prefix=$work/prefix
  cmake --install "$library_build" --prefix "$prefix" >"$work/log"
  libdir=$(dirname "$(find "$prefix" -name libKLVMsgCommModules.so.1)")
}

try_cmake() {  # DIRECTORY OPTION...
  cmake -S "$1" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" "${@:2}"
  cmake --build "$work/build" --parallel 2
  "$here/../readme/first_program_test.sh" "$work/build/first"
}

try_subproject() {  # OPTION...
  try_cmake "$here/subproject" -DLIBRARY_SOURCE="$source" -DPROGRAM_SOURCE="$project/first.cpp" "$@"
}

try_find_package() {
  try_cmake "$project" -DCMAKE_PREFIX_PATH="$prefix"
}
try_pkg_config() {
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  local flags
  flags=$(pkg-config --cflags --libs KLVMsgCommModules)
  # shellcheck disable=SC2086  # the flags are several words
  "$compiler" ${CXXFLAGS:-} -std=c++17 "$project/first.cpp" $flags -o "$work/first"
  LD_LIBRARY_PATH=$libdir "$here/../readme/first_program_test.sh" "$work/first"
}

case $way in
  find_package)
    install_library
    try_find_package
    cp -r "$project" "$work/next"
    sed -i 's/KLVMsgCommModules 1\.0/KLVMsgCommModules 2.0/' "$work/next/CMakeLists.txt"
    grep -q 2.0 "$work/next/CMakeLists.txt"
    if cmake -S "$work/next" -B "$work/next" -DCMAKE_CXX_COMPILER="$compiler" \
      -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1; then
      say_and_fail "version 2.0 was asked for and version 1 accepted"
    fi
    ;;
  pkg_config)
    install_library
    try_pkg_config
    ;;
  moved)
    install_library
    if grep -rlF -e "$prefix" -e "$source" "$libdir/cmake" "$libdir/pkgconfig"; then
      say_and_fail "these files name a directory of this build"
    fi
    mv "$prefix" "$work/elsewhere"
    libdir=$work/elsewhere${libdir#"$prefix"} prefix=$work/elsewhere
    try_find_package
    try_pkg_config
    ;;
  subproject)
    try_subproject
    ;;
  fetched)
    try_subproject -DFETCHED=ON "${as_one_source[@]}"  # which is faster
    ;;
  unity)
    try_subproject "${as_one_source[@]}"
    ;;
  own_base)
    try_cmake "$here/own_base" -DLIBRARY_SOURCE="$source" -DPROGRAM_SOURCE="$project/first.cpp"
    cmake --install "$work/build" --prefix "$work/prefix"
    include=$work/prefix/include/KLVMsgCommModules
    [ -f "$include/omi_Btree.h" ] || say_and_fail "the ordered map is not installed"
    [ ! -e "$include/KLVString.h" ] || say_and_fail "a header of KLVBase is installed"
    libdir=$(dirname "$(find "$work/prefix" -name libKLVMsgKit.so.1)")
    ln -s "$source/examples/own_base" "$work/base"  # its own path may have spaces
    CXXFLAGS="${CXXFLAGS:-} -pthread -I$work/base -I$work/build/headers" try_pkg_config
    ;;
  *)
    say_and_fail "unknown way: $way"
    ;;
esac
