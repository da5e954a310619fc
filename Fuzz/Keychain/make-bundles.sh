#!/bin/sh
# Makes the seed bundles of fuzz_bundle_import anew: one for each kind of key, encryption and seal.
set -eu
cd "$(dirname "$0")/corpus/bundle_import"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
key() { # NAME KEY-OPTION...
    name=$1
    shift
    openssl genpkey -out "$scratch/$name.key" "$@" 2>/dev/null
    openssl req -x509 -utf8 -key "$scratch/$name.key" -subj "/O=Orvane Collegium/CN=$name" -days 9000 \
        -addext "subjectAltName=email:$name@orvane.example" -out "$scratch/$name.pem"
}
pack() { # FILE NAME OPTION...: few iterations, so that many bundles are tried
    file=$1 name=$2
    shift 2
    openssl pkcs12 -export -inkey "$scratch/$name.key" -in "$scratch/$name.pem" -iter 1 -passout 'pass:correct horse' \
        -out "$file" "$@"
}
key rsa -algorithm RSA -pkeyopt rsa_keygen_bits:1024
key ec -algorithm EC -pkeyopt ec_paramgen_curve:P-256
key ed25519 -algorithm ED25519
cat "$scratch/rsa.pem" "$scratch/ed25519.pem" > "$scratch/chain.pem"
pack rsa rsa
pack ec ec -name Ada
pack ed25519 ed25519
pack rc2-legacy rsa -legacy
pack no-mac ec -nomac
pack in-the-clear ec -nomac -keypbe NONE -certpbe NONE
pack rsa-in-the-clear rsa -nomac -keypbe NONE -certpbe NONE
pack chain ec -certfile "$scratch/chain.pem"
pack chain-in-the-clear ec -certfile "$scratch/chain.pem" -nomac -keypbe NONE -certpbe NONE
openssl pkcs12 -export -nokeys -in "$scratch/ec.pem" -iter 1 -passout 'pass:correct horse' -out without-key
: > empty
head -c 600 ec > damaged
