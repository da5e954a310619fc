#!/bin/bash
# run.sh BUILD-DIR: from the start of `security find-certificate` to its result, in a keychain of 100 certificates
# (medians of 41 runs, wall clock). Exit status 1 where the bound is not kept.
set -eu
security=$(cd "$1" && pwd)/bin/security
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
export HOME="$scratch" KEYFOLD_AUTHORIZATION=none
bound=25000 # microseconds

openssl ecparam -name prime256v1 -genkey -noout -out key.pem
for number in $(seq 100); do
    openssl req -x509 -new -key key.pem -days 30 -subj "/O=Orvane Collegium/CN=Member $number" \
        -addext "subjectAltName=email:member$number@orvane.example" >> all.pem
done
"$security" import -k keychain all.pem > /dev/null
[ "$("$security" find-certificate -a -p keychain | grep -c BEGIN)" = 100 ]

# median COMMAND...: microseconds.
median() {
    for _ in $(seq 41); do
        begin=${EPOCHREALTIME/[.,]/}
        "$@" > /dev/null
        end=${EPOCHREALTIME/[.,]/}
        echo $((end - begin))
    done | sort -n | sed -n 21p
}

status=0
for arguments in "-c 'Member 57'" "-a"; do
    eval "took=\$(median \"\$security\" find-certificate $arguments keychain)"
    verdict=
    [ "$took" -le "$bound" ] || { verdict="  NOT KEPT"; status=1; }
    printf 'security find-certificate %-16s %6.1f ms (at most %d)%s\n' "$arguments" "$(awk "BEGIN { print $took / 1000 }")" \
        $((bound / 1000)) "$verdict"
done
exit "$status"
