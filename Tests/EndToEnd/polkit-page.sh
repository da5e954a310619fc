#!/bin/sh
# The page's first job on real parts (bus, polkitd, pkexec, agent, tool), for an unprivileged user: row by row.
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/rights.sh"
default=/home/carol/.local/share/pki/nssdb
member carol
chmod 644 carol.p12 carol.passphrase

# page "ANSWER...": one visit; the authority's lines are told apart from the personal certificate's.
page() {
    with_agent "$1" keyfold --batch --verbose --login carol --pkcs12 /tmp/pki/carol.p12 \
        --passphrase-file /tmp/pki/carol.passphrase
    refuse "the personal certificate is another matter" grep -q "^Personal certificate: failed" "$log"
}
green() { says "Certificate authority: succeeded"; says "Certificate authority: Certificate authority is valid"; }
red() { says "Certificate authority: failed"; }
logs() { says "Log: $1"; }
fresh() {
    nothing_trusted
    rm -rf "$default"
}
user_trusts() { timeout 20 certutil -L -d "sql:$default" | grep -qE "^Orvane Certification Authority +$1 *\$"; }

# Not present, granted: System keychain and distribution's store, for one dialog.
page password
[ "$status" = 0 ] || fail "exit status $status"
green
logs "Found 1 certificates"
asked 1
expect "the machine trusts the authority" trusted "Orvane Certification Authority"
serve 4453
expect "curl accepts the institution's server" curl -sS https://localhost:4453/ -o /dev/null
expect "nothing in the user's home belongs to root" [ -z "$(find /home/carol -user root)" ]
refuse "the user's own trust is not needed" user_trusts C,C,

# Present and trusted: nobody is asked, nothing is run.
page password
green
asked 0

# Present without a trust setting: nobody is asked; trusted for the user.
fresh
mkdir -p "$default"
timeout 20 certutil -N --empty-password -d "sql:$default"
timeout 20 certutil -A -n "Orvane Certification Authority" -t ,, -i authority.pem -d "sql:$default"
chown -R carol: /home/carol
page password
green
asked 0
expect "the user trusts it" user_trusts C,C,
refuse "the machine does not" trusted "Orvane Certification Authority"

# Not present; dismissed, refused, nobody to ask: for the user alone.
for case in "dismiss|1|The user canceled the operation (-60006)" \
    "password|1|The Security Server denied authorization for one or more requested rights (-60005)" \
    "|0|The Security Server denied authorization because no user interaction is allowed (-60007)"; do
    fresh
    answer=${case%%|*}
    rest=${case#*|}
    password=/tmp/wrong page "$answer"
    green
    asked "${rest%%|*}"
    logs "Authorization failure: ${rest#*|}"
    expect "the user trusts it" user_trusts C,C,
    refuse "the machine does not" trusted "Orvane Certification Authority"
done

# A tool that cannot be started ends the job.
fresh
mv /usr/bin/security /tmp/security
page password
red
says "The tool failed to execute (-60031)"
logs "Root install error: "
refuse "nothing was looked up afterwards" grep -q "Log: Found .* certificates" "$log"

# A tool that fails after it was started is taken as installed: the second lookup decides.
tool() {
    printf '#!/bin/sh\n%s\n' "$1" > /usr/bin/security
    chmod 755 /usr/bin/security
}
fresh
tool "exit 1"
page password
red
says "Certificate authority: Failed to install the certificate authority"
refuse "without details" grep -q "Failed to install the certificate authority:" "$log"

# It left the certificate behind, without trust: the admin domain, which is written through the tool again.
leaves="mkdir -p -m 755 /Library /Library/Keychains $system_keychain
[ -e $system_keychain/cert9.db ] || certutil -N --empty-password -d sql:$system_keychain
certutil -A -n 'Orvane Certification Authority' -t ,, -i /tmp/pki/authority.pem -d sql:$system_keychain
chmod 644 $system_keychain/cert9.db $system_keychain/pkcs11.txt"
fresh
tool "[ ! -e /tmp/failed ] || exec /tmp/security \"\$@\"
: > /tmp/failed
$leaves
exit 1"
page password
green
logs "Found 1 certificates"
logs "No error"
asked 1
expect "the machine trusts the authority" trusted "Orvane Certification Authority"
refuse "the user domain was left alone" user_trusts C,C,

# It leaves it so again and again.
fresh
rm -r "$system_keychain" # a certificate that the tool did not add stays there
tool "$leaves
exit 1"
page password
red
logs "Found 1 certificates"
says "The attempt to execute the tool failed to return a success or an error code"
asked 1
refuse "the user domain was left alone" user_trusts C,C,

# The right is gone by then: an administrator's rule has it asked about every time.
fresh
rm -r "$system_keychain"
cat > /etc/polkit-1/rules.d/10-keyfold.rules << RULE
polkit.addRule(function (action, subject) {
    if (action.id === "$admin")
        return polkit.Result.AUTH_ADMIN;
});
RULE
kill "$(pidof polkitd)"
page password
red
logs "Found 1 certificates"
says "The Security Server denied authorization for one or more requested rights"
asked 2
refuse "the user domain was left alone" user_trusts C,C,
rm /etc/polkit-1/rules.d/10-keyfold.rules
kill "$(pidof polkitd)"
mv /tmp/security /usr/bin/security
fresh
# The real tool fails as well: a keychain that lost its keys is not taken for a new one.
mv "$system_keychain/key4.db" /tmp/key4.db
page password
red
mv /tmp/key4.db "$system_keychain/key4.db"
