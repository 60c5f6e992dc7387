#!/bin/sh
# Fails, listing the files, when a C++ file of the repository differs from what clang-format makes
# of it with the repository's .clang-format. `./run format` rewrites them.
set -eu
cd "$(dirname "$0")/.."
bad=$(git ls-files '*.cpp' '*.h' | while read -r file; do
  clang-format "$file" | cmp -s "$file" - || echo "$file"
done)
if [ -n "$bad" ]; then
  echo "not formatted (./run format rewrites them):" >&2
  echo "$bad" >&2
  exit 1
fi
echo "$(git ls-files '*.cpp' '*.h' | wc -l) files formatted"
