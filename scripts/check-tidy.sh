#!/usr/bin/env bash
# Runs clang-tidy with .clang-tidy over the library's sources; any finding fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
if [ ! -f build/clang/compile_commands.json ]; then
  cmake --preset clang
fi
git ls-files -z 'KLVBase/*.cpp' 'KLVMsgCommServices/*.cpp' |
  xargs -0 -n 4 -P "$(nproc)" clang-tidy -p build/clang --quiet --warnings-as-errors='*'
echo "clang-tidy found nothing."
