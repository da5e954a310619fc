#!/bin/sh
# checker.sh PROGRAM ARGUMENT...: runs a checker; an argument may be a pattern of files.
set -eu
command -v "$1" > /dev/null || { echo "skipped: $1 is not installed" >&2; exit 77; }
# shellcheck disable=SC2068
exec $@
