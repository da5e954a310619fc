#!/bin/sh
# clean-root.sh BUILD-DIR: the packages of a build with the demonstration's authority in a Debian made by debootstrap, which
# has nothing but them and what they depend on: installed, the main job run from them by a fresh unprivileged user and by
# root, removed with everything that they alone needed, and purged. Needs root, and the registry that apt uses.
set -eu
if [ "${STAGE:-}" != inside ]; then
    [ "$(id -u)" = 0 ] || { echo "clean-root: needs root" >&2; exit 1; }
    build=$(cd "$1" && pwd)
    scratch=$(mktemp -d /var/tmp/keyfold-clean-root.XXXXXX)
    trap 'rm -rf "$scratch"' EXIT
    trap 'exit 130' INT TERM
    # What is mounted, and what is left running, ends with this.
    STAGE=inside unshare --mount --propagation private --pid --fork --kill-child "$0" "$build" "$scratch"
    exit
fi
build=$1
root=$2/root
log=$2/output
checked=$2/checked
. "$(dirname "$0")/../Support/checks.sh"
authority=$build/demo/orvane_ca.der
. /etc/os-release

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root "$@"; }
apt() { inside env DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@"; }
# as_user COMMAND...: the fresh one, without administrator rights.
as_user() { inside setpriv --reuid gail --regid gail --init-groups env HOME=/home/gail "$@"; }
# What an own program of the machine says of the institution's servers.
trusted() { inside openssl verify -CAfile /etc/ssl/certs/ca-certificates.crt /tmp/member.pem; }
nothing_of_ours() {
    ! inside find / -xdev -path /proc -prune -o -path /tmp -prune -o -path /home -prune -o -path /root -prune -o -path /var/log -prune -o \
        -path /var/lib/apt -prune -o -path /var/cache/apt -prune -o \( -iname '*keyfold*' -o -path '/Library*' \) -print |
        grep .
}

expect "debootstrap" debootstrap --variant=minbase "$VERSION_CODENAME" "$root" \
    "$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' | head -n 1)"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
rm -rf "$root/etc/apt"
cp -r /etc/apt "$root/etc/apt"
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp "$build"/packages/keyfold_*.deb "$build"/packages/keyfold-security_*.deb "$root/tmp"

# A member's certificate from the demonstration's authority.
cd "$2"
openssl req -new -newkey rsa:2048 -nodes -keyout member.key -out member.csr -subj "/O=Orvane Collegium/CN=gail" 2> "$log"
echo "subjectAltName=email:gail@orvane.example" > member.ext
openssl x509 -req -in member.csr -CA "$authority" -CAkey "$build/demo/orvane_ca.key" -days 30 -extfile member.ext \
    -out "$root/tmp/member.pem" 2> "$log"
echo "open sesame" > "$root/tmp/passphrase"
openssl pkcs12 -export -in "$root/tmp/member.pem" -inkey member.key -passout "file:$root/tmp/passphrase" \
    -out "$root/tmp/member.p12"
chmod 644 "$root/tmp/member.p12" "$root/tmp/passphrase"
visit() {
    "$@" keyfold --batch --login gail --pkcs12 /tmp/member.p12 --passphrase-file /tmp/passphrase > "$log" 2>&1
}

expect "apt update" apt update
for recommends in true false; do
    echo "With what is recommended: $recommends"
    # shellcheck disable=SC2046
    expect "the packages install" apt -o "APT::Install-Recommends=$recommends" install \
        $(cd "$root" && ls tmp/*.deb | sed 's,^,/,')
    expect "installing makes no /Library" [ ! -e "$root/Library" ]
    ! inside id gail > /dev/null 2>&1 || inside userdel -r gail 2> "$log"
    expect "a fresh user" inside useradd -m -s /bin/sh gail

    expect "the main job, without administrator rights" visit as_user
    says "Your certificates were successfully installed"
    expect "the key is in the home" [ -s "$root/home/gail/.local/share/pki/nssdb/key4.db" ]
    refuse "the machine does not trust the authority" trusted
    expect "the main job, as root" visit inside
    expect "the machine trusts it" trusted
    expect "the System keychain is there" [ -s "$root/Library/Keychains/System.keychain/cert9.db" ]
    home=$(cd "$root/home" && find . -type f -exec sha256sum {} + | sort)

    expect "the packages are removed" apt remove keyfold keyfold-security
    expect "the machine still trusts the authority" trusted
    expect "what they alone needed is removed, too" apt autoremove
    expect "the System keychain stays" [ -s "$root/Library/Keychains/System.keychain/cert9.db" ]
    expect "the packages are purged" apt purge keyfold-security
    openssl x509 -inform DER -in "$authority" -out authority.pem
    refuse "no bundle holds the authority" grep -sF "$(sed -n 2p authority.pem)" "$root/etc/ssl/certs/ca-certificates.crt"
    expect "nothing of ours stays" nothing_of_ours
    [ "$home" = "$(cd "$root/home" && find . -type f -exec sha256sum {} + | sort)" ] || fail "a home was touched"
    echo "ok: nothing in a home was touched"
done
