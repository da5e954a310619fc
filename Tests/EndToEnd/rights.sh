# What the tests of administrator rights share. Sourced after lib.sh.
for program in dbus-daemon pkexec sudo setpriv; do
    command -v "$program" > /dev/null || skip "$program is not installed"
done
[ -x /usr/lib/polkit-1/polkitd ] || skip "polkitd is not installed"
unset KEYFOLD_AUTHORIZATION
cmake --install "$build" --prefix /usr > /dev/null
ldconfig
# Where an ordinary user can run them.
install "$build/bin/polkit_agent" "$build/bin/rights" /usr/local/bin
LD_LIBRARY_PATH=$(dirname /usr/lib/*/keyfold/libKeyfoldSecurity.so)
export LD_LIBRARY_PATH
policy=/usr/share/polkit-1/actions/keyfold.policy
launcher=/usr/libexec/keyfold/keyfold-launcher
installed_authority=/usr/lib/keyfold/KFInstaller.bundle/Contents/Resources/orvane_ca.der
dialogs=/tmp/dialogs
admin=system.privilege.admin
other=system.privilege.admin.certificate

# What the machine trusts is not the test's matter.
rm -rf "$system_keychain"

# carol may become root with her password; dave may not.
useradd -m -u 4711 -G sudo -s /bin/sh carol
useradd -m -u 4712 -s /bin/sh dave
echo "carol:a pass phrase" | chpasswd
echo "a pass phrase" > /tmp/right
echo "another" > /tmp/wrong
: > "$dialogs"
chmod 666 "$dialogs"
dbus-daemon --system --fork
export USER=carol HOME=/home/carol
as_user="setpriv --reuid 4711 --regid 4711 --init-groups"

# with_agent "ANSWER..." COMMAND...: a command as carol, with an agent that answers so; its output in $log, its exit
# status in $status, the agent's lines in $dialogs. No answer: no agent.
with_agent() {
    answers=$1
    shift
    : > "$dialogs"
    status=0
    # shellcheck disable=SC2016
    agent='"$AGENT" --process $$ --log "$DIALOGS" --password "$PASSWORD" $ANSWERS || exit 99; exec "$@"'
    [ -n "$answers" ] || agent='exec "$@"'
    AGENT=/usr/local/bin/polkit_agent DIALOGS=$dialogs PASSWORD=${password:-/tmp/right} ANSWERS=$answers \
        timeout 60 $as_user sh -c "$agent" sh "$@" > "$log" 2>&1 || status=$?
    [ "$status" != 99 ] || fail "the agent did not start"
}
rights=/usr/local/bin/rights

# asked COUNT [ACTION]: so many dialogs were shown (for that action).
asked() {
    count=$(grep -c "^dialog ${2:-}${2:+ }" "$dialogs" || true)
    [ "$count" = "$1" ] || { cat "$dialogs" >&2; fail "$count dialogs ${2:-}, not $1"; }
    echo "ok: $1 dialogs ${2:-}"
}

# taken_away: polkit takes a hanging dialog away a little after the process that asked is gone.
taken_away() {
    tries=0
    until grep -qx cancel "$dialogs"; do
        tries=$((tries + 1))
        [ "$tries" -lt 100 ] || fail "the agent's dialog was left standing"
        sleep 0.1
    done
    echo "ok: the agent's dialog was taken away"
}

trusted() { timeout 20 certutil -L -d "sql:$system_keychain" 2> /dev/null | grep -qE "^$1 +C,C, *\$"; }
# nothing_trusted: takes out what an earlier step left.
nothing_trusted() {
    for file in "$installed_authority" /tmp/pki/*.der; do
        [ ! -f "$file" ] || HOME=/root security remove-trusted-cert -d "$file" > /dev/null 2>&1 || true
    done
}
# an_authority NAME [COMMON NAME]: NAME.der
an_authority() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/O=Orvane Collegium/CN=${2:-$1}" -days 30 \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign \
        -outform DER -out "$1.der" 2> /dev/null
    chmod 644 "$1.der"
}
