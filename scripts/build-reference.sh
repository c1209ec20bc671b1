#!/usr/bin/env bash
# Builds the reference in build/reference/html; a public operation without a comment fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/setup.sh
need_packages doxygen graphviz

rm -rf build/reference
mkdir -p build/reference/images
for diagram in docs/images/*.dot; do
  [ ! -e "$diagram" ] || dot -Tsvg "$diagram" -o "build/reference/images/$(basename "$diagram" .dot).svg"
done
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
{ cat docs/Doxyfile; echo "PROJECT_NUMBER = $version"; } | doxygen -
echo "The reference starts at build/reference/html/index.html"
