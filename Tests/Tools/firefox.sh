#!/bin/sh
# Firefox, told to follow the distribution's trust store, refuses a server of the institution before, accepts it after
# and refuses it again after the removal; one profile throughout. Beside policies of an administrator.
. "$(dirname "$0")/lib.sh"
firefox=$(command -v firefox-esr || command -v firefox) || skip "Firefox is not installed"
find /usr/lib /usr/lib64 -name p11-kit-trust.so 2> /dev/null | grep -q . || skip "the trust module of p11-kit is not installed"
authority root
serve 4455 root
export HOME=/tmp/tools/home
mkdir -p "$HOME/profile"

# visit NAME: until the server was asked for the page, or was refused. Firefox alone would wait at its warning.
visit() {
    : > served.4455
    timeout 60 "$firefox" --headless --no-remote --profile "$HOME/profile" --screenshot "$HOME/$1.png" \
        "https://localhost:4455/?$1" > "$1.log" 2>&1 &
    browser=$!
    for _ in $(seq 300); do
        ! grep -qE "GET /\?$1|refused:.*(UNKNOWN_CA|BAD_CERTIFICATE|CERTIFICATE_UNKNOWN)" served.4455 || break
        sleep 0.2
    done
    cp served.4455 "$1.served"
    kill "$browser" 2> /dev/null || true
    wait "$browser" 2> /dev/null || true
}
accepts() {
    visit "$1"
    expect "Firefox accepts: $1" grep -q "GET /?$1" "$1.served"
}
refuses() {
    visit "$1"
    expect "Firefox refuses: $1" grep -q "refused:" "$1.served"
    refuse "and does not ask for the page" grep -q "GET /?$1" "$1.served"
}

policies=/etc/firefox/policies/policies.json
theirs='{
  "policies": {
    "DisableTelemetry": true,
    "Certificates": {
      "ImportEnterpriseRoots": true
    }
  },
  "note": "by hand"
}'
mkdir -p /etc/firefox/policies
echo "$theirs" > $policies
refuses before
tool 0 add-trusted-cert -d root.der
says "Firefox: installed ($policies); it follows the distribution's trust store"
accepts after
tool 0 trust-status root.der
says "Firefox: follows the distribution's trust store"
tool 0 remove-trusted-cert -d root.der
expect "the administrator's policies are as they were" [ "$(cat $policies)" = "$theirs" ]
refuses removed
