#!/usr/bin/env bash
# usage: readme-example.sh README INCLUDE-DIRECTORY COMPILER [FLAG]...
#
# The whole source that README shows first compiles: the block of C++ below "## Ten lines of C++". Errors
# name the line of README.
set -euo pipefail

readme=$1 include=$2
shift 2

source=$(mktemp --suffix=.cc)
trap 'rm -f -- "$source"' EXIT
awk -v file="$readme" '
  /^## / { wanted = $0 == "## Ten lines of C++" }
  wanted && /^```cpp$/ { inside = 1; printf "#line %d \"%s\"\n", FNR + 1, file; next }
  inside && /^```$/ { exit }
  inside { print }' "$readme" >"$source"
if ! grep -q isValid "$source"; then
  echo "readme-example.sh: there is no example that verifies" >&2
  exit 1
fi
"$@" -std=c++20 -fsyntax-only -I "$include" "$source"
