#!/bin/sh
# Several installers at once: each authority ends in keychain and trust store exactly once.
. "$(dirname "$0")/lib.sh"
mkdir -p /etc/chromium/policies/managed
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

# An addition and then a removal, both held up where they could overtake each other: the last word counts everywhere.
cat > /usr/sbin/update-ca-certificates << 'SH'
#!/bin/sh
cat /usr/share/ca-certificates/mozilla/*.crt /usr/local/share/ca-certificates/*.crt > /etc/ssl/certs/ca-certificates.crt
SH
mkdir -p /usr/share/ca-certificates/mozilla
for _ in 1 2 3 4; do
    flock /run/keyfold-trust-store.lock sleep 1 &
    "$security" add-trusted-cert -d one.der > add.out 2>&1 &
    adding=$!
    sleep 0.4
    "$security" remove-trusted-cert -d one.der > remove.out 2>&1 || { cat remove.out >&2; fail "the removal failed"; }
    wait "$adding" || { cat add.out >&2; fail "the addition failed"; }
    tool 0 trust-status one.der
    for place in "System keychain" "distribution's trust store" Chromium; do
        says "$place: not there"
    done
done
