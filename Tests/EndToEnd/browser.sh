#!/bin/sh
# Without any rights, as an unprivileged user: after the wizard's run, Chromium trusts the institution's server and
# presents the installed identity to it, on the strength of this run alone.
. "$(dirname "$0")/lib.sh"
command -v chromium > /dev/null || skip "Chromium is not installed"
cmake --install "$build" --prefix /usr > /dev/null
ldconfig
export HOME=/tmp/home KEYFOLD_AUTHORIZATION=none
mkdir -p "$HOME"
member berta
chmod 644 berta.p12 berta.passphrase
chown -R 4711:4711 "$HOME"
as_user="setpriv --reuid 4711 --regid 4711 --clear-groups"

mkdir -p /etc/chromium/policies/managed
cat > /etc/chromium/policies/managed/select.json << JSON
{"AutoSelectCertificateForUrls": ["{\"pattern\":\"https://localhost:4444\",\"filter\":{}}"]}
JSON
serve 4444 -Verify 1 -verify_return_error -CAfile authority.pem
visit() {
    $as_user timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync --disable-dev-shm-usage \
        --user-data-dir="/tmp/home/$1" --dump-dom https://localhost:4444/ > "$1.html" 2> "$1.log" || true
}

visit before
expect "Chromium distrusts the server before" grep -q "ERR_CERT_AUTHORITY_INVALID" before.log

wizard berta
[ "$status" = 0 ] || fail "exit status $status"
says "Certificate authority is valid"
says "Personal certificate has been successfully installed"
default=/tmp/home/.local/share/pki/nssdb
expect "the default keychain trusts the authority" \
    sh -c "timeout 20 certutil -L -d sql:$default | grep -qE '^Orvane Certification Authority +C,C, *$'"
expect "nothing went to the System keychain" [ ! -e "$system_keychain" ]

visit after
expect "Chromium opens the page with the installed identity" grep -q "CN *= *berta" after.html
