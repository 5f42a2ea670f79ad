#!/usr/bin/env bash
# The chain and validation tests' hierarchy, made with `openssl ca` into DIR,
# which serve.py serves at URL (http://127.0.0.1:PORT).  All under
# /C=JP/O=Sealmark Chain Tests, EC P-256:
#   root       "Chain Root CA", self-signed; root.crl revokes nothing
#   inter      "Chain Intermediate CA" by root, naming URL/root.crl
#   inter-old  the same name and key, expired ten days ago
#   signer     "Chain Signer" by inter: OCSP at URL/ocsp (ocsp.cmd), CRL URL/inter.crl
#   revoked    "Chain Revoked Signer", the same, revoked by both
#   ldap       "Chain LDAP Signer": revoked; its CRL named only by inter's
#              directory name, in slapd's database (revocation_pki.sh --slapd DIR)
#   short      "Chain Short-lived Signer", like signer, expires SHORT seconds from now
#   stranger   "Chain Stranger" by "Chain Unknown Root" (unknown)
#   forged     "Chain Forged Signer", issued in the name of "Chain Intermediate
#              CA" by another key (fake-inter)
#   tsa        "Chain TSA" by root: tsa.cmd answers RFC 3161 requests
#   loop-a     "Loop A" issued by "Loop B" (loop-b), which "Loop A" issued
# Signers also as NAME.p12 with their issuer (forged: with root), password "test".
# Usage: chain_pki.sh DIR URL SHORT
set -euo pipefail
cd "$1"
url=$2
utc() { date -u -d "@$(($(date +%s) + $1))" +%y%m%d%H%M%SZ; }
dn="/C=JP/O=Sealmark Chain Tests/CN="
ca="basicConstraints=critical,CA:true
keyUsage=critical,keyCertSign,cRLSign"
leaf="keyUsage=critical,digitalSignature,nonRepudiation
authorityInfoAccess=OCSP;URI:$url/ocsp
crlDistributionPoints=URI:$url/inter.crl"
for db in root inter unknown loop; do
  : >$db.idx
  printf '[%s]\ndatabase=%s.idx\nserial=%s.srl\nnew_certs_dir=.\ndefault_md=sha256\npolicy=p\nunique_subject=no\n' $db $db $db >>ca.cnf
  echo 10 >$db.srl
done
printf '[p]\ncommonName=supplied\n[tsa]\nserial=tsa.srl\nsigner_digest=sha256\ndefault_policy=1.2.3.4.1\n%s\n' \
  "digests=sha256,sha512
ess_cert_id_alg=sha256" >>ca.cnf
echo 01 >tsa.srl
key() { [ -f $1.key ] || openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $1.key; }
issue() {  # NAME KEY CN DB CA|self START END EXTENSIONS
  key $2
  printf '%s\n' "$8" >$1.ext
  local by="-cert $5.pem -keyfile $5.key"
  [ $5 != self ] || by="-selfsign -keyfile $2.key"
  openssl req -new -key $2.key -subj "$dn$3" |
    openssl ca -batch -config ca.cnf -name $4 $by -in /dev/stdin -out $1.pem -notext \
      -preserveDN -startdate "$(utc $6)" -enddate "$(utc $7)" -extfile $1.ext 2>/dev/null
}
day=86400
selfsigned() { issue $1 $1 "$2" $3 self -$day $((30 * day)) "$ca"; }  # NAME CN DB
selfsigned root "Chain Root CA" root
selfsigned unknown "Chain Unknown Root" unknown
selfsigned loop-b "Loop B" loop
issue inter inter "Chain Intermediate CA" root root -$day $((30 * day)) "$ca
crlDistributionPoints=URI:$url/root.crl"
issue inter-old inter "Chain Intermediate CA" root root $((-20 * day)) $((-10 * day)) "$ca"
issue tsa tsa "Chain TSA" root root -$day $((30 * day)) "extendedKeyUsage=critical,timeStamping"
issue signer signer "Chain Signer" inter inter -$day $((10 * day)) "$leaf"
issue revoked revoked "Chain Revoked Signer" inter inter -$day $((10 * day)) "$leaf"
issue ldap ldap "Chain LDAP Signer" inter inter -$day $((10 * day)) "keyUsage=critical,digitalSignature
crlDistributionPoints=dirName:dn
[dn]
C=JP
O=Sealmark Chain Tests
CN=Chain Intermediate CA"
issue stranger stranger "Chain Stranger" unknown unknown -$day $((10 * day)) "keyUsage=critical,digitalSignature"
selfsigned fake-inter "Chain Intermediate CA" unknown
issue forged forged "Chain Forged Signer" unknown fake-inter -$day $((10 * day)) "keyUsage=critical,digitalSignature
authorityKeyIdentifier=none"
issue loop-a loop-a "Loop A" loop loop-b -$day $day "$ca"
issue loop-b loop-b "Loop B" loop loop-a -$day $day "$ca"
for n in revoked ldap; do openssl ca -config ca.cnf -name inter -keyfile inter.key -cert inter.pem -revoke $n.pem 2>/dev/null; done
for n in root inter; do
  openssl ca -gencrl -batch -config ca.cnf -name $n -keyfile $n.key -cert $n.pem -crldays 1 2>/dev/null |
    openssl crl -outform DER -out $n.crl
done
echo "openssl ocsp -index $PWD/inter.idx -CA $PWD/inter.pem -rsigner $PWD/inter.pem -rkey $PWD/inter.key \
-ndays 1 -reqin /dev/stdin -respout /dev/stdout 2>/dev/null" >ocsp.cmd
echo "cd $PWD && openssl ts -reply -config ca.cnf -section tsa -queryfile /dev/stdin -signer tsa.pem \
-inkey tsa.key -chain root.pem -out /dev/stdout 2>/dev/null" >tsa.cmd

mkdir db
printf '%s\n' "include /etc/ldap/schema/core.schema" "pidfile $PWD/slapd.pid" "modulepath /usr/lib/ldap" \
  "moduleload back_mdb" "database mdb" "maxsize 10485760" 'suffix "c=JP"' "directory $PWD/db" >slapd.conf
printf 'dn: %s\nobjectClass: %s\n%s\n\n' "c=JP" country "c: JP" "o=Sealmark Chain Tests,c=JP" organization \
  "o: Sealmark Chain Tests" "cn=Chain Intermediate CA,o=Sealmark Chain Tests,c=JP" cRLDistributionPoint \
  "cn: Chain Intermediate CA
certificateRevocationList;binary:: $(base64 -w0 inter.crl)" >data.ldif
[ ! -x /usr/sbin/slapadd ] || /usr/sbin/slapadd -f slapd.conf -l data.ldif 2>/dev/null

issue short short "Chain Short-lived Signer" inter inter -$day "$3" "$leaf"
for n in signer:inter revoked:inter ldap:inter short:inter stranger:unknown forged:root; do
  openssl pkcs12 -export -inkey ${n%:*}.key -in ${n%:*}.pem -certfile ${n#*:}.pem -passout pass:test -out ${n%:*}.p12
done
