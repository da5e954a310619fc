#!/bin/sh
# The packages: installed, the wizard's main job run from them, a page built against them, then removed, which keeps what
# was published, and purged, which leaves the machine as it was.
. "$(dirname "$0")/lib.sh"
examples=/usr/share/doc/keyfold-dev/examples
keychain_of_erin=/home/erin/.local/share/pki/nssdb
names="keyfold keyfold-security keyfold-dev"
ls "$build"/packages/*.deb > /dev/null || fail "there are no packages"

refuse "no package ships /Library" sh -c "for package in $build/packages/*.deb; do dpkg-deb -c \$package; done | grep /Library"

# A machine with nothing of ours, where every kind of place is there to publish to, and root has an empty home.
rm -rf /Library /var/lib/keyfold
mount -t tmpfs tmpfs /root
for program in /usr/bin/chromium /usr/bin/firefox-esr /opt/google/chrome/chrome; do
    mkdir -p "$(dirname $program)"
    [ -e $program ] || : > $program
done
mkdir -p /etc/firefox/policies
printf '{\n  "policies": {\n    "DisableTelemetry": true\n  }\n}\n' > /etc/firefox/policies/policies.json
update-ca-certificates > /dev/null 2>&1
useradd -m -u 4720 -s /bin/sh erin
member erin
chmod 644 erin.p12 erin.passphrase
# Every path where packages and the tool put something, and the content of what programs are configured by; but not what
# dpkg and apt keep of themselves.
machine() {
    find / -maxdepth 1 | sort
    find /etc /opt /run /usr /var \( -path /var/log -o -path /var/tmp -o -path '/var/lib/dpkg/*-old' -o -path '/var/*/apt' \) -prune -o \
        -printf '%p %y %l\n' | sort
    find /etc -type f ! -path '*/java/cacerts' -exec sha256sum {} + | sort
}
homes() { find /home /root -xdev -type f -exec sha256sum {} + | sort; }
machine > machine.before
same() {
    machine > machine.after
    diff machine.before machine.after
}

install_packages() { dpkg -i "$build"/packages/*.deb > dpkg.log 2>&1 || { cat dpkg.log >&2; fail "dpkg -i"; }; }
install_packages
echo "ok: the packages install"
expect "installing publishes nothing" [ ! -e /Library ]
for page in keyfold security; do
    expect "man finds $page" test -s "/usr/share/man/man1/$page.1.gz"
done
refuse "what outlives the package needs the C library alone" sh -c \
    'ldd /usr/libexec/keyfold/keyfold-unpublish | grep -vE "linux-vdso|libc\.so|ld-linux"'
refuse "what root starts looks for libraries where the system does, and nowhere else" sh -c \
    'readelf -d /usr/libexec/keyfold/* | grep -E "R(UN)?PATH"'

# A fresh user without administrator rights.
as_user="setpriv --reuid erin --regid erin --init-groups env -i HOME=/home/erin PATH=/usr/bin:/bin"
cd /home/erin
wizard erin
[ "$status" = 0 ] || fail "exit status $status"
says "Certificate authority is valid"
says "Personal certificate has been successfully installed"
expect "the user's own trust" sh -c "timeout 20 certutil -L -d sql:$keychain_of_erin | grep -qE '^Orvane Certification Authority +C,C, *$'"
expect "the user's key" sh -c "timeout 20 certutil -K -d sql:$keychain_of_erin | grep -q rsa"
cd /tmp/pki

# A page of somebody else's: built against the installed headers, shown by the installed wizard.
mkdir /tmp/page
sed -n 's/^    //p' $examples/README.md | grep -v '^keyfold' > /tmp/page/commands
expect "the example builds as its README says" sh -e -c 'cd /tmp/page && cat commands && . ./commands'
chmod -R a+rX /tmp/page
wizard erin --bundle /tmp/page/WelcomePage/build/WelcomePage.bundle
[ "$status" = 1 ] || fail "exit status $status: the page installs nothing"
expect "the page's title" [ "$(head -n 1 "$log")" = Welcome ]
says "Nice to see you, erin."
(cd /usr/include/keyfold && find . -name '*.h' | sed 's/^\.\(.*\)/#include "\/usr\/include\/keyfold\1"/') > /tmp/page/all.cpp
qt=$(dirname "$(find /usr/include -type d -name QtCore | head -n 1)")
expect "every header compiles with what is installed" c++ -std=c++20 -fPIC -fsyntax-only -I/usr/include/keyfold \
    -I"$qt" -I"$qt/QtCore" -I"$qt/QtGui" -I"$qt/QtWidgets" /tmp/page/all.cpp

# Root's visit publishes.
as_user="env HOME=/root"
serve 4463
refuse "curl refuses the institution's server" curl -sS https://localhost:4463/ -o /dev/null
wizard erin
[ "$status" = 0 ] || fail "exit status $status"
published() {
    test "$(/usr/bin/python3 -c '
import json, sys
chromium = json.load(open("/etc/chromium/policies/managed/00-keyfold.json"))
firefox = json.load(open("/etc/firefox/policies/policies.json"))["policies"]
print(len(chromium["CACertificates"]), "SecurityDevices" in firefox or "Certificates" in firefox)')" = "1 True" &&
        [ -e "$system_keychain/cert9.db" ] && curl -sS https://localhost:4463/ -o /dev/null
}
expect "what the machine trusts is published" published
homes > homes.before

# Removal keeps it; back again, and the copy that a purge needs goes.
expect "the packages are removed" dpkg -r $names
expect "no program stays" sh -c '! command -v keyfold && ! command -v security && [ ! -e /usr/libexec/keyfold ]'
expect "what was published stays" published
install_packages
refuse "an installed package needs no copy" test -e /var/lib/keyfold/keyfold-unpublish
expect "the packages are removed again" dpkg -r $names
expect "what was published stays again" published

# Purge takes it back.
expect "the packages are purged" dpkg -P $names
refuse "curl refuses the institution's server again" curl -sS https://localhost:4463/ -o /dev/null
expect "no keychain stays" [ ! -e /Library ]
homes > homes.after
expect "nothing in a home was touched" cmp homes.before homes.after
expect "the machine is as it was" same

# The same in one go, where somebody has a folder of their own below /Library.
install_packages
expect "the authority is added" security add-trusted-cert -d "$authority"
mkdir /Library/Theirs
expect "the packages are purged at once" dpkg -P $names
expect "what is not ours stays" [ -d /Library/Theirs ]
rm -r /Library
expect "the machine is as it was again" same

# Without what a removal keeps, a purge says what it does not do.
install_packages
expect "the packages are removed once more" dpkg -r $names
rm /var/lib/keyfold/keyfold-unpublish
dpkg -P keyfold-security > "$log" 2>&1 || fail "the last purge"
says "what was published stays"
