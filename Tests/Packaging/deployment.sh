#!/bin/sh
# deployment.sh CMAKE: which values of a deployment the build takes, and what it says of the others.
set -eu
cmake=$1
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failed=0

# with NAME VALUE
with() { "$cmake" "-D$1=$2" "-DOUTPUT=$scratch/metainfo.xml" -P "$here/deployment.cmake" > output 2>&1; }
wrong() {
    echo "FAILED: $*" >&2
    sed 's/^/    | /' output >&2
    failed=1
}
taken() { if with "$1" "$2"; then echo "ok: $1=$2 is taken"; else wrong "$1=$2 is not taken"; fi; }
# refused NAME VALUE TEXT: CMake breaks the lines of what it says.
refused() {
    ! with "$1" "$2" || { wrong "$1=$2 is taken"; return; }
    if tr -s '\n ' ' ' < output | grep -qF -- "$3"; then echo "ok: $1=$2: $3"; else wrong "$1=$2 does not say: $3"; fi
}
authority() { "$1" KEYFOLD_CERTIFICATE_AUTHORITY "$scratch/$2" ${3:+"$3"}; }

# make FILE SUBJECT KEY [CONSTRAINTS [USAGE]]: a certificate in DER that signed itself.
make() {
    openssl req -new -key "$3" -utf8 -multivalue-rdn -subj "$2" -out request
    { echo "basicConstraints=critical,${4:-CA:TRUE}"; [ -z "${5:-}" ] || echo "keyUsage=$5"; } > extensions
    openssl x509 -req -in request -signkey "$3" -days "${days:-5}" -extfile extensions -outform DER -out "$1" 2> /dev/null
}
name="Orvane Certification Authority"
openssl genrsa -out key 2048 2> /dev/null
openssl genrsa -out short 2047 2> /dev/null
openssl ecparam -name prime256v1 -genkey -noout -out curve
openssl ecparam -name prime192v1 -genkey -noout -out weak

make good.der "/O=Orvane/CN=$name" key
make first.der "/CN=$name/O=Orvane" key
make parts.der "/O=Örväne \\+ Co/OU=Trust+CN=$name/C=DE" key
make usage.der "/CN=$name" key CA:TRUE keyCertSign
make curve.der "/CN=$name" curve
for file in good first parts usage curve; do authority taken $file.der; done

make prefix.der "/O=Orvane/CN=$name 2" key
authority refused prefix.der "must have the common name \"$name\", not \"$name 2\""
make suffix.der "/CN=The $name" key
authority refused suffix.der "not \"The $name\""
make last.der "/CN=$name/CN=Another" key
authority refused last.der 'not "Another"'
make organization.der "/O=CN=$name" key
authority refused organization.der "must have the common name"

make leaf.der "/CN=$name" key CA:FALSE
authority refused leaf.der "is not the certificate of an authority"
make server.der "/CN=$name" key CA:TRUE digitalSignature
authority refused server.der "is not the certificate of an authority"
days=-1 make expired.der "/CN=$name" key
authority refused expired.der "certificate has expired"
make short.der "/CN=$name" short
authority refused short.der "has an RSA key of 2047 bits; at least 2048 are needed"
make weak.der "/CN=$name" weak
authority refused weak.der "key too weak"
openssl req -new -key curve -subj "/CN=$name" -out request
openssl x509 -req -in request -CA prefix.der -CAkey key -days 5 -extfile extensions -outform DER -out issued.der 2> /dev/null
authority refused issued.der "is not a root certificate"

openssl x509 -inform DER -in good.der -out good.pem
authority refused good.pem "is not one certificate in DER"
cat good.der good.der > two.der
authority refused two.der "is not one certificate in DER"
: > empty.der
authority refused empty.der "is not one certificate in DER"
authority refused missing.der "is no file"
authority refused . "is no file"

refused KEYFOLD_EMAIL_DOMAIN example.org "must be an @ and a domain"
taken KEYFOLD_EMAIL_DOMAIN @example.org
refused KEYFOLD_HELP_URL "https://example.org/<b>" "must be a web address"

help="https://example.org/help?a=1&lt;=2&b='c';d"
taken KEYFOLD_HELP_URL "$help"
told=$(python3 -c 'import sys, xml.dom.minidom
for url in xml.dom.minidom.parse(sys.argv[1]).getElementsByTagName("url"):
    print(url.firstChild.data)' metainfo.xml)
if [ "$told" = "$help
$help" ]; then echo "ok: the AppStream metadata has the address"; else wrong "the AppStream metadata has: $told"; fi
exit $failed
