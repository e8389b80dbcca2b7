#!/usr/bin/env bash
# usage: with-pkg-config.sh PKG-CONFIG PACKAGE-DIRECTORY COMPILER SOURCE PROGRAM [OPTION]...
#
# Compiles and links PROGRAM as one does by hand, with what pkg-config says about the package whose file
# is in PACKAGE-DIRECTORY.
set -euo pipefail

pkg_config=$1 compiler=$3 source=$4 program=$5
export PKG_CONFIG_PATH=$2
shift 5

"$pkg_config" --atleast-version=1.0 pkx509
library_directory=$("$pkg_config" --variable=libdir pkx509)
mkdir -p -- "$(dirname -- "$program")"
# The library comes from a directory that the dynamic linker does not know.
# shellcheck disable=SC2046
"$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Werror "$@" \
  -o "$program" "$source" $("$pkg_config" --cflags --libs pkx509) "-Wl,-rpath,$library_directory"
