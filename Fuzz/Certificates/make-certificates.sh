#!/bin/sh
# Makes the seed certificates of fuzz_certificate_dictionary anew: one for each kind of key and of string.
set -eu
cd "$(dirname "$0")/corpus/certificate_dictionary"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
make() { # NAME STRING-MASK SUBJECT KEY-OPTION...
    name=$1 mask=$2 subject=$3
    shift 3
    printf '[req]\ndistinguished_name=dn\nstring_mask=%s\n[dn]\n' "$mask" > "$scratch/openssl.cnf"
    openssl genpkey -out "$scratch/key" "$@" 2>/dev/null
    openssl req -x509 -utf8 -config "$scratch/openssl.cnf" -key "$scratch/key" -subj "$subject" -outform DER -out "$name"
}
make rsa utf8only '/C=NO/O=Orvane Collegium/OU=Staff/CN=Ada' -algorithm RSA -pkeyopt rsa_keygen_bits:1024
make ec MASK:0x4 '/O=Collegium+OU=Staff/UID=ada/CN=Åse' -algorithm EC -pkeyopt ec_paramgen_curve:P-256
make ed25519 MASK:0x800 '/CN=Ada/emailAddress=ada@orvane.example/DC=example' -algorithm ED25519
make empty utf8only / -algorithm ED25519
