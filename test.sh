#!/usr/bin/env bash
# Sets up, builds and passes the tests. Arguments are passed on to ctest.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$root/scripts/setup.sh"

need_packages cmake g++ make libgtest-dev libbenchmark-dev pkg-config tshark python3 python3-pytest

cd "$root"
echo "== Building in build/release"
cmake --preset release
cmake --build --preset release --parallel "$(nproc)"
echo "== Running the tests"
ctest --preset release --parallel "$(nproc)" "$@"
