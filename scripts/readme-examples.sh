#!/bin/sh
# The README shows the example programs as they are: between a line "<!-- example: PATH -->" and
# the next "<!-- /example -->" stands PATH's text in a C++ code block. This rewrites those blocks
# from the files; with --check it changes nothing and fails (showing the difference) when the
# README is not in step with them.
# Usage: readme-examples.sh [--check]
set -eu
cd "$(dirname "$0")/.."
fresh=$(mktemp)
trap 'rm -f "$fresh"' EXIT
awk '
  function fail(text) { print "README.md:" NR ": " text > "/dev/stderr"; failed = 1; exit 1 }
  /^<!-- example: .* -->$/ {
    if (inside) fail("an example block inside another")
    print
    file = $0
    sub(/^<!-- example: /, "", file)
    sub(/ -->$/, "", file)
    if ((getline line < file) <= 0) fail("cannot read " file)
    print "```cpp"
    do print line; while ((getline line < file) > 0)
    close(file)
    print "```"
    inside = 1
    next
  }
  /^<!-- \/example -->$/ { if (!inside) fail("an end without a start"); inside = 0 }
  !inside { print }
  END { if (inside && !failed) fail("an example block without its end"); exit failed }
' README.md >"$fresh"
if [ "${1:-}" = --check ]; then
  diff -u README.md "$fresh" || { echo "README.md is not in step with the examples: run scripts/readme-examples.sh" >&2; exit 1; }
else
  cmp -s README.md "$fresh" || cp "$fresh" README.md
fi
