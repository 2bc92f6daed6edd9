#!/usr/bin/env bash
# Throw-away certificates for the TLS mail tests: two certificate
# authorities, and server certificates signed by them.
#   make_certificates.sh DIR
# DIR/ca.pem            the authority the tests trust
# DIR/localhost.pem     localhost and 127.0.0.1, signed by it (key: .key)
# DIR/wrong-host.pem    only "mail.wrong.example", signed by it
# DIR/stranger.pem      localhost, signed by an authority nobody trusts
set -euo pipefail
dir=$1
mkdir -p "$dir"
cd "$dir"
authority() {
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=$2" -keyout "$1.key" -out "$1.pem" \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
}
server() { # name authority common-name subject-alt-names
  openssl req -newkey rsa:2048 -nodes -subj "/CN=$3" -keyout "$1.key" -out "$1.csr" 2>/dev/null
  printf 'subjectAltName=%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' "$4" > "$1.ext"
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days 2 -extfile "$1.ext" \
    -out "$1.pem" 2>/dev/null
}
authority ca "Parlova test authority"
authority stranger-ca "Nobody's authority"
server localhost ca localhost "DNS:localhost,IP:127.0.0.1"
server wrong-host ca mail.wrong.example "DNS:mail.wrong.example"
server stranger stranger-ca localhost "DNS:localhost,IP:127.0.0.1"
