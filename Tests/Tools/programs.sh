#!/bin/sh
# The programs that consult the distribution's trust store: they refuse a server of the institution before, accept it
# after, and refuse it again after the removal; and the machine is then as it was.
. "$(dirname "$0")/lib.sh"
authority root
serve 4452 root
git init -q --bare www/repository
git -C www/repository update-server-info
unset SSL_CERT_FILE SSL_CERT_DIR CURL_CA_BUNDLE REQUESTS_CA_BUNDLE GIT_SSL_CAINFO || true
address=https://localhost:4452

by_curl() { curl -sS "$address/" -o /dev/null; }
by_wget() { wget -q "$address/" -O /dev/null; }
by_git() { git ls-remote "$address/repository"; }
by_python3() { /usr/bin/python3 -c "import urllib.request; urllib.request.urlopen('$address/').read()"; }
by_openssl() { openssl s_client -connect localhost:4452 -verify_return_error < /dev/null; }
programs="curl wget git python3 openssl"

# Java's keystore holds the time of its making: its hook writes another one each time.
everything() {
    find /etc /usr/local/share/ca-certificates /var/lib/keyfold \( -type f -o -type l \) ! -path '*/java/cacerts' \
        -exec sha256sum {} + 2> /dev/null | sort -k 2
}

everything > before.list
for program in $programs; do
    refuse "$program refuses the server before" "by_$program"
done
tool 0 add-trusted-cert -k $system_keychain -d -r trustRoot root.der
for program in $programs; do
    expect "$program accepts it after" "by_$program"
done
tool 0 trust-status
says "System keychain: 1 trusted"
says "distribution's trust store: 1 trusted"
says "Orvane root  SHA-256 $(openssl x509 -in root.pem -noout -fingerprint -sha256 | sed 's/.*=//; s/://g' | tr A-F a-f)"
tool 0 remove-trusted-cert -d root.der
for program in $programs; do
    refuse "$program refuses it again after the removal" "by_$program"
done
everything > after.list
expect "the machine is as it was" diff before.list after.list
