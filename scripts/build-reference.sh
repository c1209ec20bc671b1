#!/usr/bin/env bash
# Builds the reference in build/reference/html; fails on a public operation without a comment, on a link
# that leads nowhere, and on a unit that the picture of the floors does not show.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/setup.sh
need_packages doxygen graphviz python3

# Elsewhere at first: doxygen finds no page in a path with spaces.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source=$work/source
mkdir -p "$source"
cp -r --parents README.md CONTRIBUTING.md CHANGELOG.md docs tools/wireshark/klvmsg.md python/README.md \
  examples/README.md KLVBase KLVMsgCommServices/ProtectedInterfaces \
  KLVMsgKit/ProtectedInterfaces KLVMsgKitTls/ProtectedInterfaces "$source"

# One README only can be the first page.
for folder in python examples; do
  mv "$source/$folder/README.md" "$source/$folder/$folder.md"
  find "$source" -name '*.md' -exec sed -i "s#$folder/README\.md#$folder/$folder.md#g" {} +
done

for diagram in docs/images/*.dot; do
  dot -Tsvg "$diagram" -o "$source/docs/images/$(basename "$diagram" .dot).svg"
done

# A unit is what a header and its source are together.
find KLVBase KLVMsgCommServices KLVMsgKit KLVMsgKitTls -name '*.h' -o -name '*.cpp' | while IFS= read -r file; do
  unit=$(basename "${file%.*}")
  for picture in docs/images/floors.svg "$source/docs/images/floors.svg"; do
    grep -qw "$unit" "$picture" || { echo "$picture does not show $unit" >&2; exit 1; }
  done
done

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
(cd "$source" && { cat docs/Doxyfile; echo "PROJECT_NUMBER = $version"; } | doxygen -)
rm -rf build/reference
mkdir -p build
mv "$work" build/reference
chmod 755 build/reference
python3 scripts/link_reference.py build/reference/html build/reference/names.xml .
echo "The reference starts at build/reference/html/index.html"
