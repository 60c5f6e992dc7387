#!/bin/sh
# Makes the certificates the tests use, in <outdir>:
#   ca.pem, ca-key.pem               a test CA
#   server.pem, server-key.pem       CN=localhost, SAN DNS:localhost and IP:127.0.0.1, signed by the CA
#   client.pem                       a client certificate and its key in one PEM, signed by the CA
#   untrusted.pem, untrusted-key.pem self-signed, same names as the server: nothing trusts it
# EC P-256 keys keep it fast. A complete set already there is left alone.
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 <outdir>" >&2
    exit 2
fi
out=$1
files="ca.pem ca-key.pem server.pem server-key.pem client.pem untrusted.pem untrusted-key.pem"

complete=yes
for f in $files; do
    [ -s "$out/$f" ] || complete=no
done
if [ "$complete" = yes ]; then
    exit 0
fi

mkdir -p "$out"
out=$(cd "$out" && pwd)
work=$(mktemp -d "$out/.make-certs.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
cd "$work"

days=3650
serverNames="subjectAltName=DNS:localhost,IP:127.0.0.1"

newkey() {
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null
}

# signed <name> <CN> <extendedKeyUsage> [extra extension line]
signed() {
    newkey "$1-key.pem"
    openssl req -new -key "$1-key.pem" -subj "/CN=$2" -out "$1.csr"
    {
        echo "basicConstraints=critical,CA:FALSE"
        echo "keyUsage=critical,digitalSignature"
        echo "extendedKeyUsage=$3"
        [ $# -ge 4 ] && echo "$4"
        true
    } > "$1.ext"
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca-key.pem -set_serial "0x$(openssl rand -hex 8)" \
        -days $days -sha256 -extfile "$1.ext" -out "$1.pem" 2>/dev/null
}

newkey ca-key.pem
openssl req -x509 -new -key ca-key.pem -subj "/CN=restclient test CA" -days $days -sha256 \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -out ca.pem

signed server localhost serverAuth "$serverNames"
signed client "restclient test client" clientAuth
cat client-key.pem >> client.pem

newkey untrusted-key.pem
openssl req -x509 -new -key untrusted-key.pem -subj "/CN=localhost" -days $days -sha256 \
    -addext "$serverNames" -addext "extendedKeyUsage=serverAuth" -out untrusted.pem

# ca.pem last: the build takes its presence as "done".
for f in $files; do
    [ "$f" = ca.pem ] || mv -f "$f" "$out/$f"
done
mv -f ca.pem "$out/ca.pem"
