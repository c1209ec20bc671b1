#!/usr/bin/env bash
# Runs clang-tidy with .clang-tidy over all our sources that are built here, and over the headers that
# they include; any finding fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
commands=build/clang/compile_commands.json
if [ ! -f $commands ]; then
  cmake --preset clang
fi
if grep -q protobufOrder $commands; then
  cmake --build build/clang --target protobufOrder  # a header that protoc makes
fi
mapfile -t sources < <(
  comm -12 <(git ls-files '*.cpp' | sort) \
    <(sed -n "s|.*\"file\": \"$PWD/\(.*\)\".*|\1|p" $commands | sort -u) |
    xargs ls -S)  # the largest first, so that none is left over at the end
printf '%s\0' "${sources[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/clang --quiet --warnings-as-errors='*'
echo "clang-tidy found nothing in ${#sources[@]} sources."
