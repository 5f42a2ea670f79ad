#!/usr/bin/env bash
# The revocation tests' CA, made with the openssl command into DIR, which
# serve.py serves at URL (http://127.0.0.1:PORT); NOW is in seconds.
#   ca         "Revocation CA" with an `openssl ca` index (index.txt)
#   impostor   a self-signed CA of the same name with a key of its own
#   delegate   an OCSP signer (id-kp-OCSPSigning) issued by ca
#   L<serial>  leaves, all on leaf.key, each naming what the list below says
#   fifo       a named pipe that nothing writes to
#   ca.crl (now, also in last.crl), clean.crl (before 29 was revoked),
#   stale.crl (past its nextUpdate), wrongkey.crl (signed by impostor);
#   nononce and othernonce: responses for 14 and 15 to requests without a
#   nonce and with one of their own; ca, delegate, impostor: responders;
#   nothing at /empty; slapd.conf and a database holding ca.crl under the CA's name.
# Usage: revocation_pki.sh DIR URL NOW
#        revocation_pki.sh --slapd DIR   (slapd there; prints "ACCEPT 127.0.0.1:PORT")
set -euo pipefail
if [ "$1" = --slapd ]; then
  cd "$2"
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  /usr/sbin/slapd -f slapd.conf -h "ldap://127.0.0.1:$port/" -d 256 2>slapd.log &
  until python3 -c "import socket; socket.create_connection(('127.0.0.1', $port))" 2>/dev/null; do sleep 0.1; done
  echo "ACCEPT 127.0.0.1:$port"
  wait
  exit
fi
cd "$1"
url=$2 now=$3
utc() { date -u -d "@$((now + $1))" +%y%m%d%H%M%SZ; }
for n in ca impostor delegate leaf; do openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $n.key; done
for n in ca impostor; do openssl req -x509 -key $n.key -subj "/C=JP/O=Sealmark Tests/CN=Revocation CA" -days 3 \
  -addext basicConstraints=critical,CA:true -addext keyUsage=critical,keyCertSign,cRLSign -out $n.pem; done
issue() {  # SERIAL EXTENSION-LINES...
  printf '%s\n' "${@:2}" >L$1.ext
  openssl req -new -key "$( [ $1 = 10 ] && echo delegate || echo leaf ).key" -subj "/CN=Leaf $1" |
    openssl x509 -req -CA ca.pem -CAkey ca.key -set_serial 0x$1 -days 2 -extfile L$1.ext -out L$1.pem 2>/dev/null
}
aia="authorityInfoAccess=OCSP;URI:$url"
cdp="crlDistributionPoints=URI:$url/ca.crl"
dn=("crlDistributionPoints=dirName:dn" "[dn]" "C=JP" "O=Sealmark Tests" "CN=Revocation CA")
issue 10 "extendedKeyUsage=critical,OCSPSigning" && mv L10.pem delegate.pem
for s in 11 12 13; do issue $s "$aia/ca"; done
for x in 14:nononce 15:othernonce 16:delegate 17:impostor 19:notocsp 1A:empty; do issue ${x%:*} "$aia/${x#*:}" "$cdp"; done
issue 18 "authorityInfoAccess=OCSP;URI:http://127.0.0.1:1/"
for s in 21 23; do issue $s "$cdp"; done
issue 22 "crlDistributionPoints=URI:file://$PWD/ca.crl"
issue 24 "crlDistributionPoints=URI:$url/missing,URI:$url/wrongkey.crl,URI:$url/notcrl,URI:HTTP://${url#http://}/upper.crl,$(
  )URI:gopher://127.0.0.1:1/x,URI:$url/stale.crl,URI:$url/last.crl"
issue 25 "crlDistributionPoints=URI:$url/notcrl,URI:file://$PWD/none"
issue 26 "keyUsage=digitalSignature"
for s in 27 28; do issue $s "${dn[@]}"; done
issue 29 "crlDistributionPoints=URI:$url/cache.crl"
mkfifo fifo  # file: names what can't be read: a FIFO without writer, a device, a directory
issue 2D "crlDistributionPoints=URI:file://$PWD/fifo,URI:file:///dev/zero,URI:file://$PWD,URI:file:$PWD/ca.crl"
issue 2A "$aia/ca" "crlDistributionPoints=URI:$url/wrongkey.crl"
issue 2B "authorityInfoAccess=caIssuers;URI:http://ca.example/ca.crt,OCSP;email:ocsp@example.com,$(
  )OCSP;URI:http://first.example/,OCSP;URI:http://second.example/" \
  "crlDistributionPoints=URI:http://a.example/1.crl,two,relative,URI:http://never.example/" \
  "[two]" "fullname=URI:ldap://b.example/x,URI:file:///c/3.crl" "[relative]" "relativename=rdn" "[rdn]" "CN=CRL1"
issue 2C "crlDistributionPoints=URI:http://a.example/,issuer,URI:http://b.example/" "[issuer]" \
  "CRLissuer=URI:http://issuer.example/"

entry() { printf '%s\t491231235959Z\t%s\t%s\tunknown\t/CN=Leaf %s\n' "$1" "${3:+$(utc "$3")}" "$2" "$2"; }
{
  for s in 11 14 15 16 17 19 1A 25 26 28 2A; do entry V $s; done
  entry R 12 -3600; entry R 21 -7200; entry R 22 -7200; entry R 23 7200; entry R 24 -600; entry R 27 -600; entry R 2D -600
} >index.txt
printf '[ca]\ndefault_ca = ca\ndatabase = index.txt\ncrlnumber = crlnumber\ndefault_md = sha256\n%s\n' \
  "default_crl_days = 1" >ca.cnf
echo 01 >crlnumber
crl() {  # SIGNER OUT [OPTIONS]
  openssl ca -gencrl -batch -config ca.cnf -keyfile $1.key -cert $1.pem "${@:3}" 2>/dev/null |
    openssl crl -outform DER -out $2
}
crl ca clean.crl
crl impostor wrongkey.crl
entry R 29 -600 >>index.txt
crl ca ca.crl
crl ca stale.crl -crl_lastupdate "$(utc -7200)" -crl_nextupdate "$(utc -3600)"
cp ca.crl last.crl
printf 'not DER at all' | tee notocsp >notcrl
responder() { echo "openssl ocsp -index $PWD/index.txt -CA $PWD/ca.pem -rsigner $PWD/$1.pem -rkey $PWD/$1.key -ndays 1"; }
$(responder ca) -reqin <(openssl ocsp -issuer ca.pem -cert L14.pem -no_nonce -reqout /dev/stdout) -respout nononce
$(responder ca) -reqin <(openssl ocsp -issuer ca.pem -cert L15.pem -reqout /dev/stdout) -respout othernonce
for n in ca delegate impostor; do echo "$(responder $n) -reqin /dev/stdin -respout /dev/stdout 2>/dev/null" >$n.cmd; done

[ -x /usr/sbin/slapd ] || exit 0
mkdir db
printf '%s\n' "include /etc/ldap/schema/core.schema" "pidfile $PWD/slapd.pid" "modulepath /usr/lib/ldap" \
  "moduleload back_mdb" "database mdb" "maxsize 10485760" 'suffix "c=JP"' "directory $PWD/db" >slapd.conf
printf 'dn: %s\nobjectClass: %s\n%s\n\n' "c=JP" country "c: JP" "o=Sealmark Tests,c=JP" organization \
  "o: Sealmark Tests" "cn=Revocation CA,o=Sealmark Tests,c=JP" cRLDistributionPoint \
  "cn: Revocation CA
certificateRevocationList;binary:: $(base64 -w0 ca.crl)" >data.ldif
/usr/sbin/slapadd -f slapd.conf -l data.ldif 2>/dev/null
