#!/usr/bin/env bash
# Fails when a C++ file is not formatted as .clang-format says, and names it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format --dry-run -Werror
echo "$(git ls-files '*.h' '*.cpp' | wc -l) files are formatted."
