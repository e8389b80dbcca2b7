#!/usr/bin/env bash
# usage: exported-symbols.sh NM LIBRARY INCLUDE-DIRECTORY
#
# Whatever LIBRARY exports is a class or a function that a header in INCLUDE-DIRECTORY marks with
# PKX509_EXPORT, or belongs to such a class: its members, virtual table, typeinfo. A private class, and
# anything of the libraries that it is built from, is an error.
set -euo pipefail

nm=$1 library=$2 include=$3

# The names that stand behind the mark: of a class, of a function.
public=$(grep -rhE 'PKX509_EXPORT ' "$include" | sed -En \
  -e 's/.*(class|struct) PKX509_EXPORT ([A-Za-z0-9_]+).*/\2/p' \
  -e 's/.*PKX509_EXPORT [^(]*[ &*](operator[^ A-Za-z(]+|[A-Za-z0-9_]+)\(.*/\1/p' | sort -u)

# c++filt instead of nm's own -C, since not every nm takes off the version first.
symbols=$("$nm" -D --defined-only "$library" | sed -E 's/^[0-9a-f]* +//; s/@@?VLXPKX509_1$//' |
  c++filt | sort -u)

# A symbol's own qualified name: without what it is of a class, arguments, template arguments.
strangers=$(awk -v public="$public" '
  BEGIN { split(public, names, "\n"); for (i in names) known[names[i]] = 1 }
  $1 == "A" { next }  # the version itself
  # The types of functions: clang checks calls against them under -fsanitize=function.
  / typeinfo( name)? for .* \(.*\)$/ { next }
  {
    symbol = $0
    sub(/^[A-Za-z] /, "")
    sub(/^(vtable|VTT|typeinfo|typeinfo name) for /, "")
    sub(/^(non-virtual|virtual|covariant return) thunk to /, "")
    sub(/\[abi:cxx11\]/, "")
    sub(/\(.*/, "")
    if ($0 !~ /operator<+$/) sub(/<.*/, "")
    good = 0
    if ($0 ~ /^Velantrix::/) {
      count = split($0, parts, "::")
      for (i = 1; i <= count; ++i) if (parts[i] in known) good = 1
    }
    if (!good) print symbol
  }' <<<"$symbols")

if [[ -n $strangers ]]; then
  echo "exported, but no header offers it:" >&2
  echo "$strangers" >&2
  exit 1
fi
# Handlers in programs that load the library need this one.
if ! grep -q ' typeinfo for Velantrix::Exception' <<<"$symbols"; then
  echo "the typeinfo of Velantrix::Exception is not exported" >&2
  exit 1
fi
echo "$(wc -l <<<"$symbols") symbols"
