#!/usr/bin/env bash
# usage: fresh.sh DIRECTORY COMMAND [ARGUMENT]...
#
# Removes DIRECTORY, so that nothing of an earlier run is taken for this run's, and runs COMMAND, which
# makes it anew.
set -euo pipefail

rm -rf -- "${1:?}"
shift
exec "$@"
