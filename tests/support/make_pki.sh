#!/usr/bin/env bash
# Makes the tests' PKI with the openssl command, into DIR:
#   ca            self-signed root "Sealmark Test Root CA" (RSA 2048)
#   signer        RSA 2048, issued by ca, "Sealmark Test Signer"
#   second        RSA 2048, issued by ca, "Sealmark Second Signer"
#   ec-signer     ECDSA P-256, issued by ca
#   unrelated     self-signed, shares nothing with the others
#   tsa           time-stamping key (extendedKeyUsage critical timeStamping), issued by ca
# For each NAME: NAME.pem, NAME.key (PKCS#8 PEM), NAME.der; for the signers
# also NAME.p12 (password "test", with ca.pem in it) and NAME-nokey.p12.
# Usage: make_pki.sh DIR
set -euo pipefail
dir=$1
mkdir -p "$dir"
cd "$dir"
org="/O=PDFSealmark Tests"

cat > ext.cnf <<'CNF'
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature,nonRepudiation
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[tsa]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = critical,timeStamping
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[tsa_conf]
default_tsa = tsa_section
[tsa_section]
serial = tsaserial
crypto_device = builtin
signer_digest = sha256
default_policy = 1.2.3.4.1
other_policies = 1.2.3.4.5
digests = sha1, sha256, sha384, sha512
accuracy = secs:1
ordering = yes
tsa_name = no
ess_cert_id_chain = no
ess_cert_id_alg = sha256
CNF
echo 01 > tsaserial

key() {  # NAME rsa|ec
  if [ "$2" = ec ]; then
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null
  else
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$1.key" 2>/dev/null
  fi
}
selfsigned() {  # NAME CN
  key "$1" rsa
  openssl req -new -x509 -key "$1.key" -subj "$org/CN=$2" -days 3650 -set_serial 1 \
    -extensions ca -config ext.cnf -out "$1.pem" 2>/dev/null
}
issued() {  # NAME CN SERIAL rsa|ec EXT
  key "$1" "$4"
  openssl req -new -key "$1.key" -subj "$org/CN=$2" -out "$1.csr" 2>/dev/null
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -set_serial "$3" -days 3650 \
    -extfile ext.cnf -extensions "$5" -out "$1.pem" 2>/dev/null
}

selfsigned ca "Sealmark Test Root CA"
selfsigned unrelated "Sealmark Unrelated Root"
issued signer "Sealmark Test Signer" 2 rsa leaf
issued second "Sealmark Second Signer" 3 rsa leaf
issued ec-signer "Sealmark EC Signer" 4 ec leaf
issued tsa "Sealmark Test TSA" 5 rsa tsa
for n in ca unrelated signer second ec-signer tsa; do
  openssl x509 -in "$n.pem" -outform DER -out "$n.der"
done
for n in signer second ec-signer unrelated; do
  openssl pkcs12 -export -inkey "$n.key" -in "$n.pem" -certfile ca.pem -passout pass:test -out "$n.p12"
  openssl pkcs12 -export -nokeys -in "$n.pem" -passout pass:test -out "$n-nokey.p12"
done
rm -f ./*.csr
