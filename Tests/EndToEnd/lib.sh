# What the end-to-end tests share. Sourced with the build directory in $1; runs only inside the sandbox.
set -eu
log=/tmp/output
. "$(dirname "$0")/../Support/checks.sh"
need_sandbox
build=$1
authority_key=$build/demo/orvane_ca.key
bundle=$(find "$build" -type d -name KFInstaller.bundle | head -n 1)
authority=$bundle/Contents/Resources/orvane_ca.der
system_keychain=/Library/Keychains/System.keychain
mkdir -p /tmp/pki
cd /tmp/pki

openssl x509 -inform DER -in "$authority" -out authority.pem

# certificate NAME SUBJECT EXTENSIONS: NAME.key and NAME.pem, issued by the demonstration authority.
certificate() {
    printf '%b' "$3" > "$1.ext"
    openssl req -new -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" -subj "$2" 2> /dev/null
    openssl x509 -req -in "$1.csr" -CA authority.pem -CAkey "$authority_key" -days 30 -extfile "$1.ext" \
        -out "$1.pem" 2> /dev/null
}

# member LOGIN: LOGIN.p12 with the pass phrase in the file LOGIN.passphrase.
member() {
    certificate "$1" "/O=Orvane Collegium/CN=$1" \
        "subjectAltName=email:$1@orvane.example\nextendedKeyUsage=clientAuth,emailProtection\n"
    printf 'pass phrase of %s\n' "$1" > "$1.passphrase"
    openssl pkcs12 -export -in "$1.pem" -inkey "$1.key" -certfile authority.pem -name "$1" \
        -passout "file:$1.passphrase" -out "$1.p12"
}

# serve PORT [OPTION...]: a web server for localhost with a certificate of the authority.
serve() {
    port=$1
    shift
    [ -f server.pem ] || certificate server /CN=localhost "subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n"
    openssl s_server -accept "$port" -cert server.pem -key server.key -www -quiet "$@" > server.log 2>&1 &
    server=$!
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        if timeout 1 sh -c "exec 3<>/dev/tcp/localhost/$port" 2> /dev/null || curl -sk "https://localhost:$port/" -o /dev/null; then
            return 0
        fi
        sleep 0.2
    done
    kill -0 "$server" || fail "the server did not start: $(cat server.log)"
}

# wizard LOGIN [OPTION...]: one visit in batch mode; its output in $log, its exit status in $status.
wizard() {
    login=$1
    shift
    status=0
    $as_user keyfold --batch --login "$login" --pkcs12 "/tmp/pki/$login.p12" \
        --passphrase-file "/tmp/pki/$login.passphrase" "$@" > "$log" 2>&1 || status=$?
}
as_user=
