#!/bin/sh
# Several installers at once: each authority ends in keychain and trust store exactly once.
. "$(dirname "$0")/lib.sh"
names="one two three four"
for name in $names; do
    authority "$name"
done
jobs=
for name in $names $names; do
    "$security" add-trusted-cert -d "$name.der" > "$name.$$.out" 2>&1 &
    jobs="$jobs $!"
done
for job in $jobs; do
    wait "$job" || { cat ./*.out >&2; fail "one of several at once failed"; }
done
echo "ok: eight at once succeed"
for name in $names; do
    expect "$name is in the bundle once" [ "$(bundle_count "Orvane $name")" = 1 ]
    expect "$name is trusted by programs" openssl verify "$name.pem"
    expect "$name is in the System keychain" sh -c "timeout 20 certutil -L -d sql:$system_keychain | grep -qE 'Orvane $name +C,C,'"
done
