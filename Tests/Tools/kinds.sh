#!/bin/sh
# The kinds of trust for everybody: only a trusted root is published, and what is denied is taken out again.
. "$(dirname "$0")/lib.sh"
authority root
flags() { timeout 20 certutil -L -d sql:$system_keychain | awk -v name="$1" 'index($0, name) { print $NF }'; }

tool 0 add-trusted-cert -d root.der
expect "the root is published" [ "$(bundle_count 'Orvane root')" = 1 ]
tool 0 add-trusted-cert -d -r deny root.der
says "System keychain: denied"
says "distribution's trust store: removed"
expect "the denied root is published no more" [ "$(bundle_count 'Orvane root')" = 0 ]
expect "the System keychain denies it" [ "$(flags 'Orvane root')" = p,p, ]
tool 1 verify-cert root.der
says "root.der: denied by a trust setting"
tool 0 dump-trust-settings -d
says "deny, for servers and e-mail"
tool 0 add-trusted-cert -d -r deny root.der
says "System keychain: was denied already"
tool 0 add-trusted-cert -d -r unspecified root.der
says "System keychain: no word on it any more"
tool 1 verify-cert -q root.der
tool 0 add-trusted-cert -d root.der
says "System keychain: trusted"
expect "the root is published again" [ "$(bundle_count 'Orvane root')" = 1 ]
tool 0 verify-cert -q root.der

openssl req -new -newkey rsa:2048 -nodes -keyout leaf.key -subj /CN=leaf -out leaf.csr 2> /dev/null
openssl req -x509 -newkey rsa:2048 -nodes -keyout stranger.key -subj /CN=stranger -days 30 -out stranger.pem 2> /dev/null
openssl x509 -req -in leaf.csr -CA stranger.pem -CAkey stranger.key -days 30 -out leaf.pem 2> /dev/null
tool 1 verify-cert -q leaf.pem
tool 0 add-trusted-cert -d -r trustAsRoot leaf.pem
says "System keychain: trusted by itself"
expect "what is no authority is not published" [ "$(bundle_count leaf)" = 0 ]
tool 0 verify-cert -q leaf.pem
tool 0 remove-trusted-cert -d leaf.pem
says "System keychain: removed"
tool 1 verify-cert -q leaf.pem
tool 1 delete-certificate -c nobody $system_keychain
tool 0 delete-certificate -c "Orvane root" $system_keychain
says "deleted the certificate"
KEYFOLD_AUTHORIZATION=none tool 1 import -k $system_keychain root.der
complains "denied authorization"
tool 0 import -k $system_keychain root.der
says "imported the certificate"
