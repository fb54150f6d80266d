#!/bin/bash
# Throwaway certificates for the TLS tests, written into the directory $1:
#   ca.pem/ca.key            the test CA (the trusted one)
#   server.pem/server.key    by the CA for localhost and 127.0.0.1
#   wrongname.pem/.key       by the CA for wrong.example only
#   expired.pem/.key         by the CA for localhost and 127.0.0.1, expired a day ago
#   rogue.pem/rogue.key      self-signed for localhost and 127.0.0.1 (untrusted)
#   client.pem               client certificate by the CA, followed by its key
set -euo pipefail
cd "$1"
days=2
newkey=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)

openssl req -x509 "${newkey[@]}" -keyout ca.key -out ca.pem -days $days -subj "/CN=kivreg test CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign"

issue() {  # name subject extensions [days]
  openssl req -new "${newkey[@]}" -keyout "$1.key" -out "$1.csr" -subj "$2"
  printf '%s\n' "$3" > "$1.ext"
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -out "$1.pem" \
    -days "${4:-$days}" -extfile "$1.ext"
}
issue server "/CN=localhost" "subjectAltName=DNS:localhost,IP:127.0.0.1
extendedKeyUsage=serverAuth"
issue wrongname "/CN=wrong.example" "subjectAltName=DNS:wrong.example
extendedKeyUsage=serverAuth"
# A negative validity puts the end before the start: expired as soon as it exists.
issue expired "/CN=localhost" "subjectAltName=DNS:localhost,IP:127.0.0.1
extendedKeyUsage=serverAuth" -1
issue client "/CN=kivreg test client" "extendedKeyUsage=clientAuth"
cat client.key >> client.pem

openssl req -x509 "${newkey[@]}" -keyout rogue.key -out rogue.pem -days $days -subj "/CN=localhost" \
  -addext "subjectAltName=DNS:localhost,IP:127.0.0.1"
