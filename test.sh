#!/usr/bin/env bash
# Sets up, builds and passes the tests. Arguments are passed on to ctest.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
. "$root/scripts/setup.sh"

need_packages cmake g++ make libgtest-dev -- libbenchmark-dev libcereal-dev libcpp-httplib-dev \
  libnats-dev nats-server \
  libglib2.0-dev libprotobuf-dev libssl-dev openssl pkg-config protobuf-compiler python3 python3-dpkt \
  python3-matplotlib python3-protobuf python3-pytest python3-rich relacy-dev tshark

build=$(build_root "$root")/release
prepare_build "$build" "$root"
cd "$root"
echo "== Building in $build"
cmake --preset release -B "$build"
cmake --build "$build" --parallel "$(nproc)"
echo "== Running the tests"
ctest --test-dir "$build" --output-on-failure --parallel "$(($(nproc) + 2))" "$@"  # some mostly wait
