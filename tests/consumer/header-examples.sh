#!/usr/bin/env bash
# usage: header-examples.sh INCLUDE-DIRECTORY SURROUNDINGS COMPILER [FLAG]...
#
# Every example of a public header compiles: what stands between "@code" and "@endcode". Each is the body
# of a function of its own, in which the names of SURROUNDINGS are known besides those of all headers, and
# "..." stands for nothing. A block that is no C++ says so, "@code{.txt}", and is left out. Headers are
# found by themselves, and errors name the header's line.
set -euo pipefail

include=$1 surroundings=$2
shift 2

mapfile -t headers < <(cd -- "$include" && find pkx509 velantrix -name '*.h' | sort)
source=$(mktemp --suffix=.cc)
trap 'rm -f -- "$source"' EXIT
{
  printf '#include <%s>\n' "${headers[@]}"
  printf '#include "%s"\n' "$surroundings"
  cd -- "$include"
  awk '
    /@code *$/ {
      printf "namespace example%d {\nusing namespace surroundings;\n", ++count
      printf "[[maybe_unused]] void example() {\n#line %d \"%s\"\n", FNR + 1, FILENAME
      inside = 1
      next
    }
    inside && /@endcode/ {
      print "}\n}"
      inside = 0
    }
    inside {
      sub(/^ *\/\/\/ ?/, "")
      gsub(/\.\.\./, ";")
      print
    }
    END {
      if (inside) { print "an example has no end" > "/dev/stderr"; exit 1 }
      if (count < 40) { print "there are fewer examples than ever" > "/dev/stderr"; exit 1 }
    }' "${headers[@]}"
} >"$source"
"$@" -std=c++20 -fsyntax-only -I "$include" "$source"
echo "$(grep -c '^#line' "$source") examples"
