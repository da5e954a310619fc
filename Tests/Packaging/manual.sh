#!/bin/sh
# manual.sh PROGRAM PAGE: the page names every option that the program does, and no other, and is clean to groff.
set -eu
command -v groff > /dev/null || { echo "skipped: groff is not installed" >&2; exit 77; }
warnings=$(groff -z -Tutf8 -man -ww "$2" 2>&1)
[ -z "$warnings" ] || { echo "$warnings" >&2; exit 1; }
options() { grep -oE -- '--[a-z][a-z0-9-]+' | sort -u; }
told=$("$1" --help | options)
written=$(groff -Tascii -P-c -P-b -P-u -man -rLL=4000n "$2" | options)
[ -n "$told" ] || { echo "$1 --help tells no options" >&2; exit 1; }
[ "$told" = "$written" ] || { printf 'the program tells\n%s\nthe page tells\n%s\n' "$told" "$written" >&2; exit 1; }
