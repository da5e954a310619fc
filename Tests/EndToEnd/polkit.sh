#!/bin/sh
# Administrator rights from a real system bus, polkitd, pkexec and an agent, for an unprivileged user with a real
# password: each outcome has its code, and one dialog serves question and execution.
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/rights.sh"

# Every outcome of the question.
with_agent password "$rights"
says "obtained: 0"
asked 1 "$admin"
expect "the dialog shows message and icon" grep -q "\[keyfold\] Authentication is required to trust the institution's" "$dialogs"
expect "the password went through PAM" grep -qx authenticated "$dialogs"
with_agent dismiss "$rights"
says "obtained: -60006 The user canceled the operation (-60006)"
asked 1
password=/tmp/wrong with_agent password "$rights"
says "obtained: -60005 The Security Server denied authorization for one or more requested rights (-60005)"
expect "PAM refused" grep -qx "not authenticated" "$dialogs"
begun=$(date +%s)
with_agent "" "$rights"
says "obtained: -60007 The Security Server denied authorization because no user interaction is allowed (-60007)"
expect "without an agent it says so at once" [ $(($(date +%s) - begun)) -lt 10 ]
with_agent password "$rights" --interaction no
says "obtained: -60007"
asked 0
with_agent hang "$rights" --cancel-after 1000
says "obtained: -60006"
asked 1
taken_away
with_agent password env KEYFOLD_AUTHORIZATION=none "$rights"
says "obtained: -60005"
asked 0
mv "$policy" /tmp/policy
kill "$(pidof polkitd)"
with_agent password "$rights"
says "obtained: -60001 The set parameter is invalid (-60001)"
asked 0
mv /tmp/policy "$policy"
kill "$(pidof polkitd)"
DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent with_agent "" "$rights"
says "obtained: -60008 An unrecognized internal error occurred (-60008)"
mv /usr/bin/pkexec /tmp/pkexec
with_agent "" "$rights"
says "obtained: -60008"
mv /tmp/pkexec /usr/bin/pkexec
chmod u+s /usr/bin/pkexec

# One dialog for the question and for every execution on the deployment's own authority.
an_authority another
an_authority impostor "Orvane Certification Authority"
with_agent password "$rights" add "$installed_authority" remove "$installed_authority" add "$installed_authority"
expect "three executions succeed" [ "$(grep -c "^ended: 0" "$log")" = 3 ]
says "System keychain: trusted"
asked 1
expect "the authority is trusted by the machine" trusted "Orvane Certification Authority"
refuse "no child was left" grep -q "a child is left" "$log"
nothing_trusted
with_agent password "$rights" --pipe add "$installed_authority"
says "System keychain: trusted"
asked 1
nothing_trusted

# An administrator's rule may do without the question, for the authority alone.
cat > /etc/polkit-1/rules.d/10-keyfold.rules << RULE
polkit.addRule(function (action, subject) {
    if (action.id === "$admin" && subject.isInGroup("sudo"))
        return polkit.Result.YES;
});
RULE
kill "$(pidof polkitd)"
with_agent "" "$rights" add "$installed_authority" add /tmp/pki/another.der
expect "the authority is taken" grep -q "^ended: 0" "$log"
expect "another is not" grep -q "^failed: -60005" "$log"
rm /etc/polkit-1/rules.d/10-keyfold.rules
kill "$(pidof polkitd)"
nothing_trusted

# Any other certificate: a dialog of its own, every time.
with_agent password "$rights" add /tmp/pki/another.der remove /tmp/pki/another.der
expect "both executions succeed" [ "$(grep -c "^ended: 0" "$log")" = 2 ]
asked 1 "$admin"
asked 2 "$other"
expect "which says what it is about" grep -q "not the institution's: .*/tmp/pki/another.der" "$dialogs"
with_agent "password dismiss" "$rights" add /tmp/pki/impostor.der
says "failed: -60006 The user canceled the operation (-60006)"
asked 1 "$other"
refuse "an impostor of the authority's name is not trusted" trusted "Orvane Certification Authority"
with_agent "password hang" "$rights" --cancel-after 3000 add /tmp/pki/another.der
says "failed: -60006"
asked 1 "$other"
taken_away
with_agent password "$rights" run /bin/sh
says "failed: -60005"
asked 1

# The admin domain of trust is written the same way: on the kept right, and without one refused at once.
with_agent password "$rights" trust "$installed_authority" distrust "$installed_authority" trust "$installed_authority"
says "trusted: 0"
says "distrusted: 0"
asked 1
expect "the authority is trusted by the machine" trusted "Orvane Certification Authority"
with_agent password "$rights" --none trust "$installed_authority" distrust "$installed_authority"
says "trusted: -60005"
says "distrusted: -60005"
asked 0
expect "the authority is trusted as before" trusted "Orvane Certification Authority"
nothing_trusted
with_agent password "$rights" trust /tmp/pki/another.der
says "trusted: 0"
asked 1 "$admin"
asked 1 "$other"
expect "another is trusted by the machine" trusted another
nothing_trusted
with_agent "password dismiss" "$rights" trust /tmp/pki/another.der
says "trusted: -60006"
refuse "another is not trusted" trusted another
expect "no file of the way stays" [ -z "$(find /tmp -maxdepth 1 -name 'keyfold-*.der')" ]

# Without its tool, and with one that fails.
mv /usr/bin/security /tmp/security
with_agent password "$rights" add "$installed_authority"
says "failed: -60031 The tool failed to execute (-60031)"
for ending in "exit 1" "exit 126" "exit 127" "exit 255"; do
    printf '#!/bin/sh\n%s\n' "$ending" > /usr/bin/security
    chmod 755 /usr/bin/security
    with_agent password "$rights" add "$installed_authority"
    says "ended: ${ending#exit }"
done
printf '#!/bin/sh\nkill -9 $$\n' > /usr/bin/security
with_agent password "$rights" add "$installed_authority"
says "ended: -1"
printf '#!/bin/sh\nkill -STOP $$\n' > /usr/bin/security
with_agent password "$rights" add "$installed_authority"
says "ended: -1"
mv /tmp/security /usr/bin/security
