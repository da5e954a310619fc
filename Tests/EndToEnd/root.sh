#!/bin/sh
# With administrator rights: the authority ends in the System keychain, trusted, and in the distribution's store, so that
# curl accepts a server of the institution; and everything again, which changes nothing.
. "$(dirname "$0")/lib.sh"
cmake --install "$build" --prefix /usr > /dev/null
ldconfig
export HOME=/tmp/home
mkdir -p "$HOME"

member anna
serve 4443
refuse "curl refuses the institution's server before" curl -sS https://localhost:4443/ -o /dev/null

wizard anna
[ "$status" = 0 ] || fail "exit status $status"
says "Certificate authority is valid"
says "Personal certificate has been successfully installed"
says "Your certificates were successfully installed"

list() { timeout 20 certutil -L -d "sql:$1"; }
list "$system_keychain" > system.list
expect "the System keychain trusts the authority" grep -qE "^Orvane Certification Authority +C,C, *$" system.list
expect "keychain directory is for all to read" [ "$(stat -c %a "$system_keychain")" = 755 ]
expect "certificates are for all to read" [ "$(stat -c %a "$system_keychain/cert9.db")" = 644 ]
expect "keys are for root alone" [ "$(stat -c %a "$system_keychain/key4.db")" = 600 ]
timeout 20 certutil -K -d "sql:$HOME/.local/share/pki/nssdb" > keys.list 2>&1 || true
expect "the member's key is in the default keychain" grep -q "rsa" keys.list
in_store() { openssl storeutl -noout -certs -text /etc/ssl/certs/ca-certificates.crt 2> /dev/null | grep -c "Subject: .*Orvane Certification Authority"; }
expect "the distribution's store holds the authority once" [ "$(in_store)" = 1 ]
expect "curl accepts the institution's server after" curl -sS https://localhost:4443/ -o /dev/null

before=$(sha256sum "$system_keychain/cert9.db" /etc/ssl/certs/ca-certificates.crt)
member anna_again
mv anna_again.p12 anna.p12
mv anna_again.passphrase anna.passphrase
wizard anna
[ "$status" = 0 ] || fail "exit status $status the second time"
says "Certificate authority is valid"
expect "a second visit leaves the machine's trust as it was" \
    [ "$before" = "$(sha256sum "$system_keychain/cert9.db" /etc/ssl/certs/ca-certificates.crt)" ]

expect "the tool takes the authority out again" security remove-trusted-cert -d "$authority"
refuse "curl refuses the institution's server again" curl -sS https://localhost:4443/ -o /dev/null
