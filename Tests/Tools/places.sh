#!/bin/sh
# Places in every state that a machine may have them in: each is told by itself, none stops the others, and what is not
# ours stays.
. "$(dirname "$0")/lib.sh"
authority root
authority second
chromium=/etc/chromium/policies/managed
firefox=/etc/firefox/policies
for program in /usr/bin/chromium /usr/bin/firefox-esr /opt/google/chrome/chrome; do
    mkdir -p "$(dirname $program)"
    [ -e $program ] || : > $program
done
state=/var/lib/keyfold
# Slow, and tested elsewhere; this one does what matters here.
cat > /usr/sbin/update-ca-certificates << 'SH'
#!/bin/sh
cat /usr/share/ca-certificates/mozilla/*.crt /usr/local/share/ca-certificates/*.crt > /etc/ssl/certs/ca-certificates.crt
SH
mkdir -p $chromium $firefox /usr/share/ca-certificates/mozilla

# Root's own home, whoever calls.
mkdir -p astray
HOME=/tmp/tools/astray tool 0 add-trusted-cert root.der
expect "the caller's HOME is left alone" [ -z "$(ls -A astray)" ]
root_home=$(getent passwd 0 | cut -d : -f 6)
expect "root's keychain has it" sh -c "timeout 20 certutil -L -d sql:$root_home/.local/share/pki/nssdb | grep -qE 'Orvane root +C,C,'"

# Everything at once, and back.
tool 0 add-trusted-cert -d root.der
says "Chromium: installed ($chromium/00-keyfold.json)"
says "Chrome: installed (/etc/opt/chrome/policies/managed/00-keyfold.json)"
says "Edge: not present on this machine"
says "Firefox: installed ($firefox/policies.json)"
setpriv --reuid 4711 --regid 4711 --clear-groups "$security" trust-status --json > status.json
expect "everybody may ask for the status" /usr/bin/python3 -c '
import json
places = {place["place"]: place for place in json.load(open("status.json"))["places"]}
for name in ("System keychain", "distribution'"'"'s trust store", "Chromium", "Chrome"):
    assert [c["name"] for c in places[name]["certificates"]] == ["Orvane root"], places[name]
assert places["Edge"]["state"] == "not present"
assert places["Firefox"].get("follows") or places["Firefox"]["certificates"], places["Firefox"]'
tool 0 trust-status second.der
says "System keychain: not there"
says "Chromium: not there"
tool 0 remove-trusted-cert -d root.der
expect "nothing of ours stays" [ -z "$(find /etc $state -name '*keyfold*' 2> /dev/null; ls -d $state $firefox/policies.json /etc/opt/chrome 2> /dev/null)" ]

# A certificate that stood in the System keychain before us loses the trust and stays.
timeout 20 certutil -A -d sql:$system_keychain -n 'Orvane second' -t ,, -i second.pem
tool 0 add-trusted-cert -d second.der
says "System keychain: trusted"
tool 0 remove-trusted-cert -d second.der
says "System keychain: no longer trusted; the certificate stays: it was not added by this tool"
expect "it is there" sh -c "timeout 20 certutil -L -d sql:$system_keychain | grep -qE 'Orvane second +,,'"
tool 0 remove-trusted-cert -d second.der
says "System keychain: was not trusted; the certificate stays"

# Policy files that are not ours to mend, in one go with places that work.
printf '{\n  // by hand\n  "policies": {}\n}\n' > $firefox/policies.json
truncate -s 100M $chromium/00-keyfold.json
before=$(sha256sum $firefox/policies.json $chromium/00-keyfold.json)
tool 0 add-trusted-cert -d root.der
says "distribution's trust store: installed"
says "Chrome: installed"
complains "Chromium: $chromium/00-keyfold.json is larger than 4096 KiB and is left as it is"
complains "Firefox: $firefox/policies.json is not strict JSON (at byte 5) and is left as it is"
tool 0 trust-status
says "Chromium: cannot be read: $chromium/00-keyfold.json is larger than 4096 KiB"
tool 0 remove-trusted-cert -d root.der
expect "they are as they were" [ "$before" = "$(sha256sum $firefox/policies.json $chromium/00-keyfold.json)" ]
rm $firefox/policies.json $chromium/00-keyfold.json
truncate -s 100M large.der
tool 1 add-trusted-cert -d large.der
complains "large.der: is larger than 64 KiB"

# Folders that cannot be written, and a full disk.
mount --bind $firefox $firefox
mount -o remount,ro,bind $firefox
mount -t tmpfs -o size=16k tmpfs $chromium
head -c 20000 /dev/zero > $chromium/ballast 2> /dev/null || true
tool 0 add-trusted-cert -d root.der
complains "Firefox: cannot write in $firefox: Read-only file system"
complains "Chromium: cannot write in $chromium: No space left on device"
says "Chrome: installed"
expect "no half file stays" [ "$(ls -A $chromium)" = ballast ]
rm $chromium/ballast
umount $firefox
tool 0 add-trusted-cert -d root.der
says "System keychain: was trusted already"
says "Chrome: was there already"
says "Chromium: installed"
says "Firefox: installed"
head -c 20000 /dev/zero > $chromium/ballast 2> /dev/null || true
before=$(sha256sum $chromium/00-keyfold.json)
tool 0 add-trusted-cert -d second.der
complains "Chromium: cannot write in $chromium: No space left on device"
expect "the file with the first authority is whole" [ "$before" = "$(sha256sum $chromium/00-keyfold.json)" ]
rm $chromium/ballast
tool 0 remove-trusted-cert -d second.der
tool 0 remove-trusted-cert -d root.der
umount $chromium
mount -t tmpfs -o size=4k tmpfs /usr/local/share/ca-certificates
head -c 4096 /dev/zero > /usr/local/share/ca-certificates/ballast
tool 1 add-trusted-cert -d root.der
complains "distribution's trust store: cannot write in /usr/local/share/ca-certificates: No space left on device"
says "Chrome: installed"
umount /usr/local/share/ca-certificates
tool 0 remove-trusted-cert -d root.der

# What the keychain does not take is not published.
mv $system_keychain $system_keychain.away
mkdir $system_keychain
: > $system_keychain/cert9.db
tool 1 add-trusted-cert -d root.der
complains "System keychain: "
expect "nothing was published" [ ! -e /etc/opt/chrome ]
rm -r $system_keychain
mv $system_keychain.away $system_keychain

# A path that would pass for lines of ours.
strange='/tmp/tools/root
System keychain: trusted'
cp root.der "$strange.der"
tool 0 add-trusted-cert -d "$strange.der"
tool 0 remove-trusted-cert -d "$strange.der"
tool 1 add-trusted-cert -d "$strange"
expect "such a path is told on one line" [ "$(wc -l < stderr)" = 1 ]
expect "nothing of ours stays at the end" [ -z "$(find /etc $state -name '*keyfold*' 2> /dev/null; ls -d $state $firefox/policies.json /etc/opt/chrome 2> /dev/null)" ]
