#!/bin/sh
# The trust stores of other families of distributions: their folders, and commands that write down their words and do
# what their own do.
. "$(dirname "$0")/lib.sh"
authority root

# distribution OS-RELEASE ANCHORS BUNDLE COMMAND [WORD]
distribution() {
    rm -f /etc/os-release words
    printf '%b' "$1" > /etc/os-release
    mkdir -p "$2" "$(dirname "$3")"
    printf '#!/bin/sh\necho "$0${1:+ $*}" >> /tmp/tools/words\ncat %s/* > %s 2> /dev/null\nexit 0\n' "$2" "$3" > "$4"
    chmod 755 "$4"
    "$4" package
    tool 0 add-trusted-cert -d root.der
    says "distribution's trust store: installed ($2/keyfold-orvane-root-"
    expect "the bundle holds it" openssl verify -no-CApath -no-CAfile -CAfile "$3" root.pem
    tool 0 add-trusted-cert -d root.der
    says "distribution's trust store: was there already"
    tool 0 trust-status
    says "distribution's trust store: 1 trusted"
    tool 0 remove-trusted-cert -d root.der
    says "distribution's trust store: removed"
    expect "the folder is empty again" [ -z "$(ls -A "$2")" ]
    expect "the command ran once for each change" [ "$(cat words)" = "$4 package
$4${5:+ }${5:-}
$4${5:+ }${5:-}" ]
}

distribution 'NAME="Fedora Linux"\nID=fedora\n' /etc/pki/ca-trust/source/anchors \
    /etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem /usr/bin/update-ca-trust extract
distribution 'NAME="Rocky Linux"\nID="rocky"\nID_LIKE="rhel centos fedora"\n' /etc/pki/ca-trust/source/anchors \
    /etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem /usr/bin/update-ca-trust extract
distribution 'ID=arch\n' /etc/ca-certificates/trust-source/anchors /etc/ca-certificates/extracted/tls-ca-bundle.pem \
    /usr/bin/update-ca-trust
distribution 'ID="opensuse-leap"\nID_LIKE="suse opensuse"\n' /etc/pki/trust/anchors \
    /var/lib/ca-certificates/ca-bundle.pem /usr/sbin/update-ca-certificates

# One that nobody knows: the keychain has it, and the store's failure is the command's.
rm /etc/os-release
echo 'ID=plan9' > /etc/os-release
tool 1 add-trusted-cert -d root.der
says "System keychain: trusted"
complains "distribution's trust store: this distribution's is not known"
tool 0 remove-trusted-cert -d root.der
