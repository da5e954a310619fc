#!/bin/sh
# docs/deploying.md, word for word: an administrator with an authority, a domain and an address of their own makes the
# packages, installs them, and takes them away.
set -eu
log=/tmp/output
. "$(dirname "$0")/../Support/checks.sh"
need_sandbox
command -v sudo > /dev/null || skip "sudo is not installed"
sources=$(cd "$(dirname "$0")/../.." && pwd)

# A clone of one's own.
mkdir /tmp/clone
(cd "$sources" && tar -c --exclude=./.git --exclude=./build --exclude='./build-*' .) | tar -x -C /tmp/clone
cd /tmp/clone
cp docs/deploying.md /tmp/deploying.md
# Somebody tried the example where it stands.
mkdir -p Examples/WelcomePage/build
touch Examples/WelcomePage/build/CMakeCache.txt

# An institution's own values.
mkdir /tmp/pki
openssl req -x509 -newkey rsa:3072 -nodes -sha256 -days 30 -config Resources/demonstration-authority.cnf \
    -keyout /tmp/pki/authority.key -outform DER -out authority.der 2> /dev/null
openssl x509 -inform DER -in authority.der -out /tmp/pki/authority.pem
# block KIND NUMBER: that block of the document.
block() { awk -v kind="\`\`\`$1" -v number="$2" '$0 == "```" { inside = 0 } inside; $0 == kind && ++count == number { inside = 1 }' /tmp/deploying.md; }
commands() {
    block sh "$1" > /tmp/commands
    [ -s /tmp/commands ] || fail "the document has no block of commands number $1"
    sed 's/^/    $ /' /tmp/commands
    sh -e /tmp/commands < /dev/null > "$log" 2>&1 || fail "the document's commands number $1"
}
block json 1 > CMakeUserPresets.json
value() { sed -n "s/.*\"$1\": \"\(.*\)\".*/\1/p" CMakeUserPresets.json; }
domain=$(value KEYFOLD_EMAIL_DOMAIN)
help=$(value KEYFOLD_HELP_URL)
expect "the document's domain and address are not the demonstration's" sh -c \
    "echo '$domain $help' | grep -q '^@.* https://' && ! echo '$domain $help' | grep -q orvane"
# apt asks whether to go on; the document's reader answers.
echo 'APT::Get::Assume-Yes "true";' > /etc/apt/apt.conf.d/99-answer

commands 1
expect "the packages are not the demonstration's" sh -c '! ls build/deployment/packages | grep demonstration'
dpkg-deb -c build/deployment/packages/keyfold-dev_*.deb > "$log"
says /examples/WelcomePage/CMakeLists.txt
refuse "what was built of the example is not shipped" grep -F WelcomePage/build "$log"
expect "no demonstration authority was made" [ ! -e build/deployment/demo ]
commands 2
digest=$(sha256sum authority.der | cut -d ' ' -f 1)
expect "three times the authority's digest" [ "$(grep -c "^$digest" "$log")" = 3 ]

# The wizard uses them.
openssl req -new -newkey rsa:2048 -nodes -keyout /tmp/pki/fay.key -subj "/O=Orvane Collegium/CN=Fay" -out /tmp/pki/fay.csr \
    2> /dev/null
printf 'subjectAltName=email:fay%s\n' "$domain" > /tmp/pki/fay.ext
openssl x509 -req -in /tmp/pki/fay.csr -CA /tmp/pki/authority.pem -CAkey /tmp/pki/authority.key -days 30 \
    -extfile /tmp/pki/fay.ext -out /tmp/pki/fay.pem 2> /dev/null
echo secret > /tmp/pki/passphrase
openssl pkcs12 -export -in /tmp/pki/fay.pem -inkey /tmp/pki/fay.key -passout file:/tmp/pki/passphrase -out /tmp/pki/fay.p12
run() { keyfold --batch --login fay --pkcs12 /tmp/pki/fay.p12 --passphrase-file /tmp/pki/passphrase "$@" > "$log" 2>&1; }
rm -rf /Library /root/.pki /root/.local/share/pki
run --dry-run || fail "a dry run"
says "Old certificates: None for fay$domain"
says "Personal certificate: For fay$domain"
run || fail "the main job"
says "Certificate authority: succeeded"
in_store() { grep -qF "$(sed -n 2p /tmp/pki/authority.pem)" /etc/ssl/certs/ca-certificates.crt; }
expect "the institution's authority is published" in_store
resources=/usr/lib/keyfold/KFInstaller.bundle/Contents
expect "the help document has the address" grep -qF "$help" $resources/Resources/Help.rtf
expect "the page has the address" grep -qF "$help" $resources/Linux/KFInstaller
expect "the packages name who answers for them" sh -c "dpkg-query -W -f '\${Maintainer}' keyfold | grep -F '$(value CPACK_PACKAGE_CONTACT)'"

commands 3
expect "removal keeps what was published" in_store
commands 4
! in_store || fail "a purge takes back what was published"
expect "a purge deletes the System keychain" [ ! -e /Library ]
[ -z "$(block sh 5)" ] || fail "the document has commands that this test does not run"
echo "ok: everything was taken back"
