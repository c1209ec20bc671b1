#!/usr/bin/env bash
# Makes the Debian packages and the source package in build/packages and has lintian check them; its
# warnings fail. `autopkgtest build/packages/*.dsc build/packages/*.deb -- null` tries them.
# build-packages.sh [--no-check]
#
# They are built from a copy of the tree, in which packaging/debian stands where Debian's tools look for
# it, with what is made from other files: the changelog from CHANGELOG.md, the copyright from LICENSE, the
# symbols from abi/. The same commit gives the same bytes, whatever the folder, the time and the umask.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"
. scripts/setup.sh
umask 022

check=yes
case "$*" in
  "") ;;
  --no-check) check=no ;;
  *) echo "usage: build-packages.sh [--no-check]" >&2; exit 2 ;;
esac
need_packages build-essential cmake debhelper dh-python doxygen dpkg-dev graphviz libnats-dev libssl-dev \
  pybuild-plugin-pyproject python3 python3-setuptools python3-wheel
[ $check = no ] || need_packages lintian

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
build=$(build_root "$root")/packages
# Debian's tools leave the folder's path out of what they build only if it is a plain one.
folder=$(mktemp -d /tmp/klvmsg-packages.XXXXXX)
trap 'rm -rf "$folder"' EXIT
source=$folder/klvmsgcommmodules-$version
mkdir "$source"
rm -rf "$build"
mkdir -p "$build"
copy_tree "$root" "$source"
debian=$source/debian
mv "$source/packaging/debian" "$debian"

# "## VERSION (DATE)", and below it items that begin with "- ".
write_changelog() {
  awk -v maintainer="$(sed -n 's/^Maintainer: //p' "$debian/control")" '
    function finish() {
      if (date != "") {
        command = "LC_ALL=C date --utc --date=" date " +\"%a, %d %b %Y %H:%M:%S +0000\""
        command | getline stamp
        printf "\n -- %s  %s\n", maintainer, stamp
      }
    }
    /^## / {
      finish()
      date = substr($3, 2, length($3) - 2)
      printf "%sklvmsgcommmodules (%s) unstable; urgency=medium\n\n", entries++ ? "\n" : "", $2
      next
    }
    date != "" && /^- / { print "  * " substr($0, 3) }
    date != "" && /^  / { print "  " $0 }
    END { finish() }' CHANGELOG.md >"$debian/changelog"
}

# The licence is what LICENSE says. Without that file nobody is given any right.
write_copyright() {
  if [ -f LICENSE ]; then
    sed 's/@LICENSE@/LICENSE/' "$debian/copyright.in"
    sed 's/^$/./; s/^/ /' LICENSE
  else
    sed 's/@LICENSE@/proprietary/' "$debian/copyright.in"
    echo " All rights reserved by the authors."
  fi >"$debian/copyright"
  rm "$debian/copyright.in"
}

# Weak symbols come from templates and inline functions: it is the compiler's choice which of them there
# are. A symbol has the version that brought it, or has been there from the first one.
write_symbols() {  # PACKAGE TO_BUILD_WITH LIBRARY...
  local package=$1${version%%.*} library
  for library in "${@:3}"; do
    echo "lib$library.so.${version%%.*} $package #MINVER#"
    echo "* Build-Depends-Package: $2"
    awk '{ print " " ($2 ~ /^[TBDR]$/ ? "" : "(optional)") $1 "@Base " ($3 == "" ? "1.0.0" : $3) }' \
      "abi/$library.symbols"
  done >"$debian/$package.symbols"
}

write_changelog
write_copyright
write_symbols libklvmsgcommmodules libklvmsgcommmodules-dev KLVBase KLVMsgCommModules
write_symbols libklvmsgkit libklvmsgcommmodules-dev KLVMsgKit
write_symbols libklvmsgkittls libklvmsgkittls-dev KLVMsgKitTls
[ "$(dpkg-parsechangelog -l "$debian/changelog" -S Version)" = "$version" ] ||
  { echo "CHANGELOG.md does not begin with version $version" >&2; exit 1; }
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$debian/changelog" -S Timestamp)
export SOURCE_DATE_EPOCH
find "$source" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +

echo "== Building the packages in $build"
# With the system's own compiler and Python, which may not be the first ones of the user's.
(cd "$source" && env -u CXX -u CXXFLAGS -u CMAKE_CXX_COMPILER_LAUNCHER PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  dpkg-buildpackage --build=full --no-sign --jobs="$(nproc)") \
  >"$build/build.log" 2>&1 || { cat "$build/build.log" >&2; exit 1; }
cp "$folder"/klvmsgcommmodules_* "$folder"/*.deb "$build"

if [ $check = yes ]; then
  lintian --allow-root --fail-on error,warning --info "$folder"/*.changes
  echo "lintian accepts:"
fi
ls "$build"/*.deb
