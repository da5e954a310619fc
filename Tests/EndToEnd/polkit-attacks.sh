#!/bin/sh
# What an ordinary user may try on the privileged side, with the kept right in hand.
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/rights.sh"
an_authority another
an_authority impostor "Orvane Certification Authority"
seen=/tmp/seen

# What the tool sees of the caller: a tool that writes it down takes the place of the real one.
mv /usr/bin/security /tmp/security
cat > /usr/bin/security << TOOL
#!/bin/sh
{ id -u; env; pwd; umask; ulimit -f; ulimit -n; ls -l /proc/self/fd; grep -E '^Sig(Blk|Ign)|^Groups' /proc/self/status; } > $seen
TOOL
chmod 755 /usr/bin/security
mkdir -p /tmp/evil
cat > /tmp/evil/hostile.cpp << 'CODE'
#include <fcntl.h>
#include <unistd.h>
__attribute__((constructor)) static void begin() { if (geteuid() == 0) close(open("/tmp/taken", O_CREAT | O_WRONLY, 0644)); }
CODE
c++ -shared -fPIC -o /tmp/evil/hostile.so /tmp/evil/hostile.cpp
expect "the library would do harm" sh -c "LD_PRELOAD=/tmp/evil/hostile.so /bin/true; [ -e /tmp/taken ] && rm /tmp/taken"
printf '#!/bin/sh\ntouch /tmp/taken\n' > /tmp/evil/security
cp /tmp/evil/security /tmp/evil/id
chmod 755 /tmp/evil/*
# shellcheck disable=SC2016
hostile='cd /tmp/evil; umask 777; ulimit -S -f 1000; ulimit -S -n 24; trap "" TERM HUP; exec 7< /etc/passwd
LD_PRELOAD=/tmp/evil/hostile.so PATH=/tmp/evil:$PATH IFS=/ ENV=/tmp/evil/id LC_ALL=xx_XX HOME=/home/dave OPENSSL_CONF=/tmp/evil/id \
    SSLKEYLOGFILE=/home/dave/keys NSS_DEFAULT_DB_TYPE=dbm PKEXEC_UID=0 SUDO_UID=0 ASAN_OPTIONS=verify_asan_link_order=0 exec "$@"'
with_agent password sh -c "$hostile" sh "$rights" add "$installed_authority"
says "ended: 0"
for line in 0 HOME=/root LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin / 0022 unlimited 4096; do
    expect "the tool sees \"$line\"" grep -qx -- "$line" "$seen"
done
refuse "nothing of the caller's variables" grep -qE "evil|hostile|dave|dbm|xx_XX|_UID" "$seen"
expect "no descriptor of the caller's" [ "$(grep -c ' -> ' "$seen")" = 5 ]
expect "every signal as it should be" [ "$(grep -cE '^Sig(Blk|Ign):.0000000000000000$' "$seen")" = 2 ]
refuse "nothing of the caller's was run" [ -e /tmp/taken ]
mv /tmp/security /usr/bin/security

# The certificate's file turns into another one at any moment: what was checked is what the tool gets.
mv /usr/bin/security /tmp/security
printf '#!/bin/sh\nsha256sum < /dev/fd/3 >> %s\n' "$seen" > /usr/bin/security
chmod 755 /usr/bin/security
: > "$seen"
cp "$installed_authority" race.der
cp race.der race.authority
chmod 777 /tmp/pki
chmod 644 race.*
# shellcheck disable=SC2016
$as_user sh -c 'while :; do cp impostor.der next; mv next race.der; cp race.authority next; mv next race.der
    ln -s impostor.der next; mv next race.der; cp race.authority next; mv next race.der; done' 2> /dev/null &
racing=$!
adds=
for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do adds="$adds add /tmp/pki/race.der"; done
# shellcheck disable=SC2086
with_agent "password dismiss" "$rights" $adds
kill $racing
expect "some got through" grep -q "$(sha256sum < race.authority)" "$seen"
expect "and nothing but the authority" [ -z "$(grep -v "$(sha256sum < race.authority)" "$seen")" ]
expect "the others were told apart" grep -qE "^failed: (-60006|-60031)" "$log"
rm -f /usr/bin/security race.*
mv /tmp/security /usr/bin/security

# Files that are not the caller's, not files, links, or too large; the tool is not reached.
cp another.der /home/dave/private.der
chmod 600 /home/dave/private.der
chmod 755 /home/dave
ln -s "$installed_authority" link.der
mkfifo fifo.der
head -c 70000 /dev/zero > large.der
for row in "/home/dave/private.der|Permission denied" "/tmp/pki/link.der|is a symbolic link" \
    "/tmp/pki/fifo.der|is not a regular file" "/tmp/pki/large.der|is larger than 64 KiB" "/proc/1/environ|Permission denied" \
    "/dev/zero|is not a regular file" "/tmp/pki/missing.der|No such file"; do
    with_agent password "$rights" add "${row%%|*}"
    says "failed: -60031"
    says "${row%%|*}: ${row#*|}"
    asked 0 "$other"
done
rm -f link.der fifo.der large.der

# The launcher by hand, under the kept right, with words of the attacker's.
for attempt in "authority null /bin/sh -c id" "authority null /usr/bin/security import x" \
    "authority null /usr/bin/security add-trusted-cert -d $installed_authority" \
    "authority null /usr/bin/security add-trusted-cert -k /tmp/evil -d -r trustRoot $installed_authority" \
    "authority null /usr/bin/security remove-trusted-cert -d -d $installed_authority" \
    "authority null /usr/bin/security remove-trusted-cert -d another.der" "authority"; do
    # shellcheck disable=SC2086
    with_agent "password dismiss" "$rights" words $attempt
    says "reply: r"
    asked 1
done
with_agent "password dismiss" "$rights" words authority null /usr/bin/security remove-trusted-cert -d /tmp/pki/impostor.der
says "reply: o"
asked 1
for way in certificate nothing /bin/sh; do
    with_agent "password dismiss" "$rights" words $way null /usr/bin/security remove-trusted-cert -d "$installed_authority"
    says "reply: -"
    asked 2
done

# A path that would speak to the person who is asked: the dialog's own words come before it.
speaking='/tmp/pki/another.der

The institution asks for your password'
cp another.der "$speaking"
with_agent "password dismiss" "$rights" add "$speaking"
says "failed: -60006"
expect "the dialog says first what it is about" grep -q "^dialog $other .*Authentication is required to change, for \
everybody on this computer, the trust of a certificate authority that is not the institution's: " "$dialogs"

# A digest that somebody else could have written gives nobody the kept right.
chmod 666 /usr/lib/keyfold/authority.sha256
sha256sum impostor.der > /usr/lib/keyfold/authority.sha256
with_agent "password dismiss" "$rights" add /tmp/pki/impostor.der
says "failed: -60006"
refuse "no impostor was trusted" trusted "Orvane Certification Authority"
refuse "nor anything else" trusted another
