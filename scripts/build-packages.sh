#!/usr/bin/env bash
# Makes the Debian packages in build/packages and has lintian check them; its errors fail.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/setup.sh
need_packages cmake g++ make dpkg-dev lintian

build=build/packages
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DKLVMSG_BUILD_TESTS=OFF -DKLVMSG_BUILD_EXAMPLES=OFF -DKLVMSG_BUILD_BENCHMARKS=OFF
cmake --build "$build" --parallel "$(nproc)"
rm -f "$build"/*.deb
(cd "$build" && cpack)

lintian --allow-root --fail-on error --info "$build"/*.deb
echo "lintian accepts:"
ls "$build"/*.deb
