# What the tool's tests in the sandbox share. Sourced with the tool's path in $1.
set -eu
[ -e /run/keyfold-sandbox ] || { echo "not inside the sandbox" >&2; exit 77; }
[ -x /usr/sbin/update-ca-certificates ] || { echo "skipped: no update-ca-certificates" >&2; exit 77; }
folder=$(cd "$(dirname "$0")" && pwd)
security=$1
system_keychain=/Library/Keychains/System.keychain
mkdir -p /tmp/tools
cd /tmp/tools

fail() {
    echo "FAILED: $*" >&2
    for file in stdout stderr; do
        [ ! -f "$file" ] || sed "s/^/    $file | /" "$file" >&2
    done
    exit 1
}

# expect DESCRIPTION COMMAND...: the command must succeed.
expect() {
    description=$1
    shift
    "$@" > last 2>&1 || { cat last >&2; fail "$description"; }
    echo "ok: $description"
}

# refuse DESCRIPTION COMMAND...: the command must fail.
refuse() {
    description=$1
    shift
    ! "$@" > last 2>&1 || { cat last >&2; fail "$description"; }
    echo "ok: $description"
}

# tool STATUS ARGUMENT...: runs the tool, which must end with STATUS; its words are in the files stdout and stderr.
tool() {
    expected=$1
    shift
    status=0
    "$security" "$@" > stdout 2> stderr || status=$?
    [ "$status" = "$expected" ] || fail "security $* ended with $status, not $expected"
    echo "ok: security $* ends with $status"
}

says() { expect "tells \"$1\"" grep -qF -- "$1" stdout; }
complains() { expect "complains \"$1\"" grep -qF -- "$1" stderr; }

# authority NAME [COMMON NAME]: NAME.key, NAME.pem and NAME.der.
authority() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/O=Orvane Collegium/CN=${2:-Orvane $1}" \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign -days 30 \
        -out "$1.pem" 2> /dev/null
    openssl x509 -in "$1.pem" -outform DER -out "$1.der"
}

# serve PORT NAME: a web server for localhost with a certificate of the authority NAME; what it saw is in served.PORT.
serve() {
    printf 'subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n' > server.ext
    openssl req -new -newkey rsa:2048 -nodes -keyout "server.$1.key" -subj /CN=localhost -out server.csr 2> /dev/null
    openssl x509 -req -in server.csr -CA "$2.pem" -CAkey "$2.key" -days 30 -extfile server.ext -out "server.$1.pem" \
        2> /dev/null
    mkdir -p www
    echo "<p>served</p>" > www/index.html
    /usr/bin/python3 "$folder/server.py" "$1" "server.$1.pem" "server.$1.key" www "served.$1" 2> server.log &
    for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
        ! curl -sk "https://localhost:$1/" -o /dev/null || return 0
        sleep 0.2
    done
    fail "the server did not start: $(cat server.log)"
}

list() { timeout 20 certutil -L -d "sql:$1"; }
bundle_count() { openssl storeutl -noout -certs -text /etc/ssl/certs/ca-certificates.crt 2> /dev/null | grep -c "Subject:.*CN *= *$1" || true; }
