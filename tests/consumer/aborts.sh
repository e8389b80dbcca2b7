#!/usr/bin/env bash
# usage: aborts.sh TEXT COMMAND [ARGUMENT]...
#
# Succeeds when COMMAND ends by SIGABRT and has written TEXT to standard error.
set -euo pipefail

text=$1
shift
ulimit -c 0
status=0
said=$("$@" 2>&1 >/dev/null) || status=$?
echo "$said"
if [[ $status -ne 134 ]]; then
  echo "aborts.sh: it did not abort, its status is $status" >&2
  exit 1
fi
if [[ $said != *"$text"* ]]; then
  echo "aborts.sh: it did not say: $text" >&2
  exit 1
fi
