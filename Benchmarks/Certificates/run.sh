#!/bin/sh
# run.sh BUILD-DIR: digests, certificate dictionaries and encodings, each against its yardstick (medians of 15
# interleaved runs, processor time). Exit status 1 where a bound is not kept.
set -eu
build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
openssl req -x509 -newkey rsa:2048 -noenc -keyout /dev/null -subj '/C=NO/O=Orvane Collegium/OU=Staff/CN=A Member' \
    -addext subjectAltName=email:member@orvane.example -outform DER -out certificate.der 2>/dev/null
"$build/bin/certificates_benchmark" certificate.der --benchmark_format=csv --benchmark_repetitions=15 \
    --benchmark_enable_random_interleaving=true --benchmark_min_time=0.05 > results.csv 2>/dev/null
awk -F, '
function row(text, ours, base, bound) {
    ratio = ours / base
    kept = ratio <= bound
    printf "%-58s %10.0f ns %10.0f ns %6.2f (at most %.2f)%s\n", text, ours, base, ratio, bound, kept ? "" : "  NOT KEPT"
    if (!kept) failed = 1
}
$1 ~ /_median"$/ { name = $1; gsub(/"|_median/, "", name); t[name] = $4 }
END {
    # Attaching is told apart: the rest is held against the yardstick, within one attachment and through one of its own.
    row("SHA-1 of a certificate, against EVP_Digest", t["digest"], t["digestByOpenSSL"], 1.3)
    row("  through attach, digest and detach, less the attachment", t["attachDigestAndDetach"] - t["attachAndDetach"],
        t["digestByOpenSSL"], 1.3)
    printf "%-58s %10.0f ns\n", "  the attachment: attach and detach alone", t["attachAndDetach"]
    printf "%-58s %10.0f ns %10.0f ns %6.2f\n", "  all of it: attach, digest and detach",
        t["attachDigestAndDetach"], t["digestByOpenSSL"], t["attachDigestAndDetach"] / t["digestByOpenSSL"]
    row("certificate dictionary, against d2i_X509", t["certificateDictionary"], t["certificateByOpenSSL"], 0.2)
    row("hexadecimal text of 1 MB, against memcpy of it", t["hexText"], t["copyOfHexText"], 10)
    row("base64 of 8 KB, against stripping and filtering", t["decodeBase64"], t["stripBase64"] + t["filterBase64"], 1.05)
    exit failed
}' results.csv
