#!/bin/sh
# The tool as root on a copy of the machine: an authority is trusted by keychain and programs, and no longer.
. "$(dirname "$0")/lib.sh"
authority root
serve 4451 root
unset SSL_CERT_FILE SSL_CERT_DIR CURL_CA_BUNDLE || true

refuse "curl refuses the server before" curl -sS https://localhost:4451/ -o /dev/null
umask 077
tool 0 add-trusted-cert -k $system_keychain -d -r trustRoot root.der
says "System keychain: trusted"
says "distribution's trust store: installed (/usr/local/share/ca-certificates/keyfold-orvane-root-"
expect "curl accepts it after" curl -sS https://localhost:4451/ -o /dev/null
expect "the System keychain trusts the authority" sh -c "timeout 20 certutil -L -d sql:$system_keychain | grep -qE 'Orvane root +C,C,'"
for directory in /Library /Library/Keychains $system_keychain; do
    expect "$directory is for everybody to enter" [ "$(stat -c %a $directory)" = 755 ]
done
expect "certificates are for everybody to read" [ "$(stat -c %a $system_keychain/cert9.db)" = 644 ]
expect "keys are root's alone" [ "$(stat -c %a $system_keychain/key4.db)" = 600 ]
expect "the anchor is for everybody to read" [ "$(stat -c %a /usr/local/share/ca-certificates/keyfold-orvane-root-*.crt)" = 644 ]

before=$(sha256sum $system_keychain/* /etc/ssl/certs/ca-certificates.crt)
tool 0 add-trusted-cert root.pem -r trustRoot -d
says "System keychain: was trusted already"
says "distribution's trust store: was there already"
expect "the second time changes nothing" [ "$before" = "$(sha256sum $system_keychain/* /etc/ssl/certs/ca-certificates.crt)" ]

# Variables of the caller's that would lead libraries astray are not heeded.
authority astray
echo "garbage = [" > astray.cnf
OPENSSL_CONF=/tmp/tools/astray.cnf TMPDIR=/nonexistent tool 0 add-trusted-cert -d astray.der

ln -s root.der link.der
tool 1 add-trusted-cert -d link.der
complains "link.der: is a symbolic link"
openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -subj /CN=leaf -addext basicConstraints=CA:FALSE -outform DER -out leaf.der 2> /dev/null
tool 1 add-trusted-cert -d leaf.der
complains "leaf.der: is not the certificate of an authority"
expect "nothing of it was published" [ "$(bundle_count leaf)" = 0 ]

KEYFOLD_AUTHORIZATION=none tool 1 add-trusted-cert -d -k $system_keychain astray.der
complains "denied authorization"
chmod 755 /tmp/tools
chmod 644 astray.der
setpriv --reuid 4711 --regid 4711 --clear-groups "$security" add-trusted-cert -d astray.der > stdout 2> stderr && fail "a user without rights is refused"
complains "denied authorization"

tool 0 remove-trusted-cert -d root.der
says "System keychain: removed"
says "distribution's trust store: removed"
refuse "curl refuses the server again" curl -sS https://localhost:4451/ -o /dev/null
expect "the other authority stays" [ "$(bundle_count 'Orvane astray')" = 1 ]
expect "no link dangles" [ -z "$(find /etc/ssl/certs -xtype l)" ]
refuse "the certificate left the System keychain" sh -c "timeout 20 certutil -L -d sql:$system_keychain | grep -q 'Orvane root'"
tool 0 remove-trusted-cert -d root.der
says "System keychain: was not there"
tool 0 add-trusted-cert -d root.der
expect "curl accepts the server once more" curl -sS https://localhost:4451/ -o /dev/null

# A trust store that cannot take it is told, and does not hide that the keychain has it.
authority late
mv /usr/sbin/update-ca-certificates /usr/sbin/update-ca-certificates.away
printf '#!/bin/sh\necho broken; exit 4\n' > /usr/sbin/update-ca-certificates
chmod 755 /usr/sbin/update-ca-certificates
tool 1 add-trusted-cert -d late.der
says "System keychain: trusted"
complains "distribution's trust store: /usr/sbin/update-ca-certificates failed (4): broken"
mv /usr/sbin/update-ca-certificates.away /usr/sbin/update-ca-certificates
tool 0 add-trusted-cert -d late.der
