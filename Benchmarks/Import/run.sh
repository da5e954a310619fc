#!/bin/sh
# run.sh BUILD-DIR: importing a bundle (RSA-2048 with two authorities above it), against NSS's own tools.
set -eu
build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
export HOME="$scratch/home" KEYFOLD_AUTHORIZATION=none
unset XDG_DATA_HOME XDG_CONFIG_HOME

# A root, an intermediate authority and a member's certificate, in one bundle.
request() { # NAME SUBJECT
    openssl req -new -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" -subj "$2" 2>/dev/null
}
printf 'basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign,cRLSign\n' > ca.ext
printf 'subjectAltName=email:member@orvane.example\nextendedKeyUsage=clientAuth,emailProtection\n' > member.ext
request root '/O=Orvane Collegium/CN=Benchmark Root'
openssl x509 -req -in root.csr -key root.key -days 30 -extfile ca.ext -out root.pem 2>/dev/null
request middle '/O=Orvane Collegium/CN=Benchmark Members'
openssl x509 -req -in middle.csr -CA root.pem -CAkey root.key -days 30 -extfile ca.ext -out middle.pem 2>/dev/null
request member '/O=Orvane Collegium/CN=A Member'
openssl x509 -req -in member.csr -CA middle.pem -CAkey middle.key -days 30 -extfile member.ext -out member.pem 2>/dev/null
cat middle.pem root.pem > chain.pem
printf 'a pass phrase\n' > passphrase
openssl pkcs12 -export -in member.pem -inkey member.key -certfile chain.pem -name member \
    -passout file:passphrase -out member.p12

# Both sides start from the same database, made by NSS's own tool.
mkdir -p template
timeout 20 certutil -N -d sql:template --empty-password
database=$HOME/.pki/nssdb
prepare="rm -rf '$HOME' && mkdir -p '$HOME/.pki' && cp -r template '$database' && chmod 700 '$database'"
status=0

echo "Import alone against pk12util -i:"
"$build/bin/import_benchmark" 15 1.0 "$build/bin/import_once member.p12 passphrase" \
    "pk12util -i member.p12 -d 'sql:$database' -w passphrase" "$prepare" || status=1

# The authority stands in the keychain, trusted, as after an earlier visit.
authority=$(find "$build" -name orvane_ca.der | head -n 1)
cp -r template trusted
timeout 20 certutil -A -d sql:trusted -n "Orvane Certification Authority" -t C,C, -i "$authority"
prepare="rm -rf '$HOME' && mkdir -p '$HOME/.pki' && cp -r trusted '$database' && chmod 700 '$database'"
echo "The page's whole batch run without rights, authority present, against pk12util -i and certutil -A:"
"$build/bin/import_benchmark" 15 1.5 \
    "$build/bin/keyfold --batch --login member --pkcs12 member.p12 --passphrase-file passphrase" \
    "pk12util -i member.p12 -d 'sql:$database' -w passphrase && certutil -A -d 'sql:$database' -n middle -t ,, -i middle.pem" \
    "$prepare" || status=1
exit "$status"
