#!/usr/bin/env bash
# Fails when a C++ file is not formatted as .clang-format says, and names it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
files() { git ls-files -z '*.h' '*.cpp'; }

files | xargs -0 clang-format --dry-run -Werror
# clang-format passes over comments and texts that are too long.
limit=$(sed -n 's/^ColumnLimit: //p' .clang-format)
if files | LC_ALL=C.UTF-8 xargs -0 grep -nE ".{$((limit + 1))}"; then
  echo "These lines have more than $limit columns." >&2
  exit 1
fi
echo "$(files | tr -cd '\0' | wc -c) files are formatted."
