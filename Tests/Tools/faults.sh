#!/bin/sh
# Runs that are killed at every write, rename, fsync and unlink in turn, or fail there: no reader ever sees half a file,
# and the next run finishes what was begun and leaves exactly what an undisturbed one leaves.
. "$(dirname "$0")/lib.sh"
command -v strace > /dev/null || skip "strace is not installed"
strace -o /dev/null -e inject=rename:signal=KILL:when=1 true 2> strace.log || skip "strace may not trace here: $(cat strace.log)"
# The distribution's own takes seconds, many times over.
cat > /usr/sbin/update-ca-certificates << 'SH'
#!/bin/sh
cat /usr/share/ca-certificates/mozilla/*.crt /usr/local/share/ca-certificates/*.crt > /etc/ssl/certs/ca-certificates.crt
SH
mkdir -p /usr/share/ca-certificates/mozilla /etc/chromium/policies/managed /etc/firefox/policies
authority theirs
authority root
cp theirs.pem /usr/local/share/ca-certificates/theirs.crt
echo '{"CACertificates": []}' > /etc/chromium/policies/managed/theirs.json
echo '{"policies":{"Certificates":{}}}' > /etc/firefox/policies/policies.json

# Every file with its digest, and every folder; fails where a policy file is half a file.
cat > state.py << 'PY'
import hashlib, json, os
for top in ("/etc/chromium", "/etc/firefox", "/usr/local/share/ca-certificates", "/var/lib/keyfold", "/etc/ssl/certs"):
    for folder, folders, files in os.walk(top):
        print(folder)
        for path in sorted(os.path.join(folder, name) for name in files):
            if top == "/etc/ssl/certs" and not path.endswith("/ca-certificates.crt"):
                continue
            content = open(path, "rb").read()
            print(path, hashlib.sha256(content).hexdigest())
            if path.endswith(".json"):
                json.loads(content)
PY
state() { /usr/bin/python3 state.py && "$security" trust-status; }

"$security" add-trusted-cert -d root.der > /dev/null
state > added.list
"$security" remove-trusted-cert -d root.der > /dev/null
state > removed.list
grep -q "1 trusted" added.list || fail "the authority was not added"

# disturb INJECTION COMMAND: one run that meets the injection; false where it came to its end without.
disturb() {
    strace -o trace -e "trace=${1%%:*}" -e "inject=$1" "$security" "$2-trusted-cert" -d root.der > stdout 2> stderr || true
    /usr/bin/python3 state.py > now.list || fail "$2 with $1 left half a file"
    grep -qE "INJECTED|killed by" trace
}
# recover INJECTION COMMAND LIST
recover() {
    "$security" "$2-trusted-cert" -d root.der > stdout 2> stderr || fail "$2 after one with $1"
    state > now.list
    diff "$3" now.list || fail "$2 after one with $1 leaves something else"
}
# every SYSTEM-CALL INJECTION STEP: the first such call of a run, the one STEP after it, and so on.
every() {
    number=1
    met=true
    while $met; do
        met=false
        injection=$1:$2:when=$number
        ! disturb "$injection" add || met=true
        # What was begun is finished, or taken back at once.
        [ $((number % 2)) = 0 ] || recover "$injection" add added.list
        [ $((number % 2)) = 1 ] || recover "$injection" remove removed.list
        "$security" add-trusted-cert -d root.der > stdout 2> stderr || fail "addition after one with $injection"
        ! disturb "$injection" remove || met=true
        recover "$injection" remove removed.list
        number=$((number + $3))
    done
    [ "$number" -gt $((2 * $3)) ] || fail "no $1 was met"
    echo "ok: $1 with $2, up to the $((number - 2 * $3)). by $3"
}
# Every one of them, but of the many writes into the database one in twenty; FAULT_STEP=3 is a third of the time.
step=${FAULT_STEP:-1}
every rename signal=KILL "$step"
every unlink signal=KILL "$step"
every fsync signal=KILL "$step"
every write signal=KILL "$step"
every pwrite64 signal=KILL $((step * 20))
every rename error=EIO "$step"
every fsync error=EIO "$step"
every write error=ENOSPC "$step"
