# shellcheck shell=sh
# How the shell tests check, and what they tell of it. Sourced by a test that has set
#     log      the file with what its last run said
#     shown    the files that a failure shows; else $log alone
#     checked  the file that takes what the command of a check says; else /tmp/checked, the sandbox's own
: "${shown:=$log}" "${checked:=/tmp/checked}"

fail() {
    echo "FAILED: $*" >&2
    for file in $shown; do
        [ ! -f "$file" ] || tail -n 40 "$file" | sed "s/^/    ${file##*/} | /" >&2
    done
    exit 1
}

skip() {
    echo "skipped: $*" >&2
    exit 77
}

need_sandbox() { [ -e /run/keyfold-sandbox ] || skip "not inside the sandbox"; }

# expect DESCRIPTION COMMAND...: the command must succeed.
expect() {
    description=$1
    shift
    "$@" > "$checked" 2>&1 || { cat "$checked" >&2; fail "$description"; }
    echo "ok: $description"
}

# refuse DESCRIPTION COMMAND...: the command must fail.
refuse() {
    description=$1
    shift
    ! "$@" > "$checked" 2>&1 || { cat "$checked" >&2; fail "$description"; }
    echo "ok: $description"
}

# says TEXT: the last run's output holds a line with TEXT.
says() { expect "says \"$1\"" grep -qF -- "$1" "$log"; }
