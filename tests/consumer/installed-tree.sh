#!/usr/bin/env bash
# usage: installed-tree.sh READELF SOURCE-DIRECTORY BUILD-DIRECTORY INCLUDE LIB BIN DATA MAN
#
# Looks at what was installed; the last five are the installed directories.
set -euo pipefail

readelf=$1 source=$2 build=$3 include=$4 lib=$5 bin=$6 data=$7 man=$8

fail() {
  echo "installed-tree.sh: $*" >&2
  exit 1
}

# Every public header, and nothing else.
headers() { (cd -- "$1" && find . ! -type d | sort); }
diff <(headers "$source/include") <(headers "$include") || fail "these headers differ"

# Documentation that is there is installed.
for page in "$source"/docs/man/*.[1-8]; do
  [[ ! -e $page ]] || cmp -- "$page" "$man/man${page##*.}/${page##*/}" || fail "man page $page"
done
completion=tools/completion/pkx509
[[ ! -e $source/$completion ]] ||
  cmp -- "$source/$completion" "$data/bash-completion/completions/pkx509" || fail "completion"

# The packages' files neither name the place where they were made nor tell users how it was done.
files=("$lib"/cmake/pkx509/*.cmake "$lib/pkgconfig/pkx509.pc")
if grep -nF -e "$source" -e "$build" -e -fsanitize -e -W -e pkx509_options -e LINK_ONLY -e Boost::url \
  -- "${files[@]}"; then
  fail "the packages' files say too much"
fi

# The library: its name, and no place to look for others.
dynamic=$("$readelf" -d "$lib/libvlxpkx509.so")
grep -qF 'soname: [libvlxpkx509.so.1]' <<<"$dynamic" || fail "SONAME: $dynamic"
[[ -L $lib/libvlxpkx509.so && -L $lib/libvlxpkx509.so.1 ]] || fail "the library's links are missing"
if grep -E 'RPATH|RUNPATH' <<<"$dynamic"; then fail "the library carries a search path"; fi

# The tool: it runs, with the library beside it.
loaded=$(ldd "$bin/pkx509" | awk '$1 == "libvlxpkx509.so.1" { print $3 }')
[[ -n $loaded && $loaded -ef $lib/libvlxpkx509.so.1 ]] || fail "the tool loads '$loaded'"
"$bin/pkx509" --version
