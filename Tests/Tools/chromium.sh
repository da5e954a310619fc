#!/bin/sh
# Chromium refuses a server of the institution before, accepts it after, beside an authority of an administrator's own
# file, and refuses it again after the removal. A fresh profile each time: nothing but the policy can decide.
. "$(dirname "$0")/lib.sh"
command -v chromium > /dev/null || skip "Chromium is not installed"
authority root
authority theirs
serve 4453 root
serve 4454 theirs
export HOME=/tmp/tools/home
mkdir -p "$HOME"

# visit NAME PORT: the page is in NAME.html, what Chromium said in NAME.log.
visit() {
    timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync --disable-dev-shm-usage \
        --user-data-dir="$HOME/$1" --dump-dom "https://localhost:$2/" > "$1.html" 2> "$1.log" || true
}
accepts() {
    visit "$1" "$2"
    expect "Chromium accepts: $1" grep -q "<p>served</p>" "$1.html"
}
refuses() {
    visit "$1" "$2"
    refuse "Chromium does not show the page: $1" grep -q "<p>served</p>" "$1.html"
    expect "Chromium distrusts the authority: $1" grep -q "ERR_CERT_AUTHORITY_INVALID" "$1.log"
}

policies=/etc/chromium/policies/managed
mkdir -p $policies
printf '{"CACertificates": ["%s"]}' "$(base64 -w 0 theirs.der)" > $policies/theirs.json
refuses before 4453
tool 0 add-trusted-cert -d root.der
says "$policies/theirs.json sets CACertificates too, and both lists count"
accepts after 4453
accepts an-administrators-own 4454
tool 0 remove-trusted-cert -d root.der
refuses removed 4453
accepts an-administrators-own-still 4454
expect "the administrator's file is alone again" [ "$(ls -A $policies)" = theirs.json ]
