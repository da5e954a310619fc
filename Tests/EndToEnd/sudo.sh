#!/bin/sh
# Administrator rights from sudo and an askpass program, where polkit can ask nobody.
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/rights.sh"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent
an_authority another

# askpass LINES: the program that a person would answer.
askpass() {
    printf '#!/bin/sh\necho "dialog sudo -" >> %s\n%s\n' "$dialogs" "$1" > /tmp/askpass
    chmod 755 /tmp/askpass
}
export SUDO_ASKPASS=/tmp/askpass

# As another user each time, for sudo remembers; rights is its own parent's child, so nothing is remembered between runs.
askpass "cat /tmp/right"
with_agent "" "$rights"
says "obtained: 0"
asked 1 sudo
with_agent "" "$rights" add "$installed_authority" remove "$installed_authority" add "$installed_authority"
expect "three executions succeed" [ "$(grep -c "^ended: 0" "$log")" = 3 ]
asked 1 sudo
expect "the authority is trusted by the machine" trusted "Orvane Certification Authority"
refuse "no child was left" grep -q "a child is left" "$log"
nothing_trusted
with_agent "" "$rights" --pipe add "$installed_authority"
says "System keychain: trusted"
nothing_trusted
with_agent "" "$rights" add /tmp/pki/another.der remove /tmp/pki/another.der
expect "both executions succeed" [ "$(grep -c "^ended: 0" "$log")" = 2 ]
asked 3 sudo
with_agent "" "$rights" run /bin/sh
says "failed: -60005"


# The question about another certificate is dismissed, or not answered rightly.
# later LINES: answers the first question and comes to these with the next.
later() {
    rm -f /tmp/answered
    askpass "[ -e /tmp/answered ] || { : > /tmp/answered; exec cat /tmp/right; }
$1"
}
later "exit 1"
with_agent "" "$rights" add /tmp/pki/another.der
says "failed: -60006 The user canceled the operation (-60006)"
asked 2 sudo
later "cat /tmp/wrong"
with_agent "" "$rights" add /tmp/pki/another.der
says "failed: -60005"
later "exec sleep 1000"
with_agent "" "$rights" --cancel-after 3000 add /tmp/pki/another.der
says "failed: -60006"
refuse "it is not trusted" trusted another

# sudo may be told to let the caller's variables through: who calls is not theirs to say.
echo 'Defaults env_keep += "PKEXEC_UID SUDO_UID"' > /etc/sudoers.d/keyfold
askpass "cat /tmp/right"
cp another.der private.der
chmod 600 private.der
with_agent "" env PKEXEC_UID=0 SUDO_UID=0 "$rights" add /tmp/pki/private.der
says "private.der: Permission denied"
says "failed: -60031"
rm /etc/sudoers.d/keyfold

# The admin domain: on what sudo remembers; without, nobody is asked.
askpass "cat /tmp/right"
with_agent "" "$rights" trust "$installed_authority"
says "trusted: 0"
asked 1 sudo
expect "the authority is trusted by the machine" trusted "Orvane Certification Authority"
nothing_trusted
with_agent "" "$rights" --none trust "$installed_authority"
says "trusted: -60005"
asked 0 sudo

askpass "cat /tmp/wrong"
with_agent "" "$rights"
says "obtained: -60005"
askpass "exit 1"
with_agent "" "$rights"
says "obtained: -60006"
askpass "exec sleep 1000"
with_agent "" "$rights" --cancel-after 1000
says "obtained: -60006"
rm /tmp/askpass
with_agent "" "$rights"
says "obtained: -60008"
askpass "cat /tmp/right"
as_user="setpriv --reuid 4712 --regid 4712 --init-groups"
with_agent "" "$rights"
says "obtained: -60005"
as_user="setpriv --reuid 4711 --regid 4711 --init-groups"

# Rights that are given up stay so, whoever could be asked.
askpass "cat /tmp/right"
with_agent "" env KEYFOLD_AUTHORIZATION=none "$rights"
says "obtained: -60005"
asked 0 sudo

# The page through sudo.
member carol
chmod 644 carol.p12 carol.passphrase
with_agent "" keyfold --batch --login carol --pkcs12 /tmp/pki/carol.p12 --passphrase-file /tmp/pki/carol.passphrase
[ "$status" = 0 ] || fail "exit status $status"
says "Certificate authority is valid"
asked 1 sudo
expect "the authority is trusted by the machine" trusted "Orvane Certification Authority"

# Where polkit can ask somebody, sudo is not asked; a "no" is final.
unset DBUS_SYSTEM_BUS_ADDRESS
with_agent dismiss "$rights"
says "obtained: -60006"
asked 0 sudo
asked 1 "$admin"
