# What the tool's tests in the sandbox share. Sourced with the tool's path in $1.
set -eu
log=stdout
shown="stdout stderr"
. "$(dirname "$0")/../Support/checks.sh"
need_sandbox
[ -x /usr/sbin/update-ca-certificates ] || skip "no update-ca-certificates"
folder=$(cd "$(dirname "$0")" && pwd)
security=$1
system_keychain=/Library/Keychains/System.keychain
mkdir -p /tmp/tools
cd /tmp/tools

# tool STATUS ARGUMENT...: runs the tool, which must end with STATUS; its words are in the files stdout and stderr.
tool() {
    expected=$1
    shift
    status=0
    "$security" "$@" > stdout 2> stderr || status=$?
    [ "$status" = "$expected" ] || fail "security $* ended with $status, not $expected"
    echo "ok: security $* ends with $status"
}

# complains TEXT: the same of what it said to stderr.
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
