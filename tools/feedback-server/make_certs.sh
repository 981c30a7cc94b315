#!/usr/bin/env bash
# Makes the certificates of the test feedback server in DIR (created if missing):
#   ca.pem                      test CA (the trust anchor the tests configure)
#   server.pem/.key             feedback.pathweave.example, issued by the test CA
#   wrongname.pem/.key          other.pathweave.example, issued by the test CA
#   expired.pem/.key            feedback.pathweave.example, valid only in 2020, test CA
#   untrusted.pem/.key          feedback.pathweave.example, issued by another CA
#   selfsigned.pem/.key         feedback.pathweave.example, self-signed
# Every key is P-256 (fast handshakes). Usage: make_certs.sh DIR
set -euo pipefail

dir=${1:?usage: make_certs.sh DIR}
name=${PW_TEST_SERVER_NAME:-feedback.pathweave.example}
mkdir -p "$dir"
cd "$dir"

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

ca() {  # ca NAME SUBJECT
  key "$1.key"
  openssl req -x509 -new -key "$1.key" -sha256 -days 3650 -subj "/CN=$2" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -out "$1.pem"
}

# A minimal `openssl ca` set-up, which (unlike `openssl x509`) can set both validity dates.
ca_config() {  # ca_config CA
  mkdir -p "$1.db"
  : > "$1.db/index.txt"
  [ -f "$1.db/serial" ] || echo 1000 > "$1.db/serial"
  cat > "$1.cnf" <<EOF
[ ca ]
default_ca = test_ca
[ test_ca ]
dir = $1.db
database = \$dir/index.txt
serial = \$dir/serial
new_certs_dir = \$dir
certificate = $1.pem
private_key = $1.key
default_md = sha256
policy = anything
unique_subject = no
copy_extensions = copy
[ anything ]
commonName = supplied
[ server ]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = serverAuth
EOF
}

leaf() {  # leaf OUT CA HOST START END
  key "$1.key"
  openssl req -new -key "$1.key" -subj "/CN=$3" -addext "subjectAltName=DNS:$3" -out "$1.csr"
  openssl ca -batch -config "$2.cnf" -extensions server -in "$1.csr" -out "$1.pem" -notext \
    -startdate "$4" -enddate "$5" 2>/dev/null
  rm -f "$1.csr"
}

ca ca "Pathweave Test CA"
ca other-ca "Unrelated Test CA"
ca_config ca
ca_config other-ca

now_start=$(date -u -d '-1 day' +%Y%m%d%H%M%SZ)
now_end=$(date -u -d '+3650 days' +%Y%m%d%H%M%SZ)
leaf server ca "$name" "$now_start" "$now_end"
leaf wrongname ca "other.pathweave.example" "$now_start" "$now_end"
leaf expired ca "$name" 20200101000000Z 20201231000000Z
leaf untrusted other-ca "$name" "$now_start" "$now_end"

key selfsigned.key
openssl req -x509 -new -key selfsigned.key -sha256 -days 3650 -subj "/CN=$name" \
  -addext "subjectAltName=DNS:$name" -out selfsigned.pem

rm -rf ca.db other-ca.db ca.cnf other-ca.cnf
