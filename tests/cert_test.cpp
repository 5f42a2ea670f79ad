// PDFCert and `sealmark cert show`, over certificates the openssl command
// makes at test time from a table, checked against what the openssl command
// prints about the same files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/winstore/PDFCertWinImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "support/test_tsa.h"
#include "support/test_util.h"

namespace {

using namespace sealtest;
using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFCertImpl;

// One certificate a row: NAME KEY STRING_MASK SERIAL NOT_BEFORE NOT_AFTER
// SUBJECT EXTENSIONS.  openssl req writes the names, in the string type that
// string_mask picks, and the extensions; openssl ca -selfsign sets the dates
// (without extensions it makes version 1); openssl x509 -set_serial the serial.
// utf8: UTF8Strings, four serial bytes with the top bit set, UTCTimes either
// side of the century switch, CRL and OCSP URLs.  bmp: BMPStrings, five serial
// bytes.  long: twenty serial bytes, GeneralizedTimes, a CRL named by a
// directory name.  negative: a serial whose two's complement carries.
// badpath: a key usage beside a basicConstraints that OpenSSL 3 calls invalid.
const char kRows[] =
    R"(utf8 signer utf8only 0x80000000 19500101000000Z 20491231235959Z /C=JP/O=テスト株式会社/CN=山田太郎/emailAddress=yamada@example.jp -addext keyUsage=critical,digitalSignature,nonRepudiation,keyCertSign -addext crlDistributionPoints=URI:http://crl.example/a.crl,URI:ldap://ldap.example/cn=a -addext authorityInfoAccess=OCSP;URI:http://ocsp.example/,OCSP;URI:http://second.example/
bmp ec-signer pkix 0x0100000000 20240101000000Z 20240131000000Z /C=JP/O=テスト/CN=鈴木
long signer utf8only 0x7A1B2C3D4E5F60718293A4B5C6D7E8F901234567 20000101000000Z 21000101000000Z /CN=Long -addext keyUsage=keyAgreement,decipherOnly -addext crlDistributionPoints=dirName:dn,URI:http://after.example/
negative signer default -0x0100 20240101000000Z 20240131000000Z /CN=Negative
badpath signer default 0x05 20240101000000Z 20340101000000Z /CN=Bad -addext basicConstraints=critical,CA:true,pathlen:-1 -addext keyUsage=nonRepudiation,decipherOnly)";

const char kMake[] = R"(set -eo pipefail
printf '%s\n' '[req]' 'distinguished_name = dn' 'string_mask = $ENV::MASK' '[dn]' 'C = JP' 'CN = Directory CA' \
  '[ca]' 'database = index.txt' 'new_certs_dir = .' 'serial = serial' 'default_md = sha256' \
  'copy_extensions = copy' 'policy = policy' '[policy]' > ca.cnf
cp -R "$1"/. .
touch index.txt && echo 01 > serial && cat signer.pem ca.pem > two.pem
openssl pkcs12 -export -in signer.pem -inkey signer.key -passout pass: -out nopass.p12
echo "$2" | while read -r name key MASK serial from to subject extensions; do
  export MASK && openssl req -new -utf8 -config ca.cnf -key $key.key -subj "$subject" $extensions -out $name.csr
  openssl ca -batch -config ca.cnf -name ca -selfsign -keyfile $key.key -in $name.csr -preserveDN -notext \
    -startdate $from -enddate $to | openssl x509 -signkey $key.key -set_serial $serial -preserve_dates -out $name.pem
done)";

// Checks what `sealmark cert show` printed on stdin, JSON or the table,
// against openssl's reading of the certificate file argv[1]; prints what differs.
const char kShowOracle[] = R"(import json, re, subprocess, sys, time
x509 = lambda *a: subprocess.run(['openssl', 'x509', '-noout', '-nameopt', 'oid,utf8,sep_multiline', '-in', sys.argv[1],
                                  *a], capture_output=True, text=True, check=True).stdout
field = lambda option: x509(option).split('=', 1)[1].strip()
date = lambda option: time.strftime('%Y%m%d%H%M%SZ', time.strptime(field(option), '%b %d %H:%M:%S %Y %Z'))
text, serial, out = x509('-text'), field('-serial'), sys.stdin.read()
if serial[0] == '-':  # two's complement at the width of the magnitude
    serial = '%0*X' % (len(serial) - 1, (1 << 4 * (len(serial) - 1)) - int(serial[1:], 16))
usage = re.search(r'X509v3 Key Usage:.*\n\s*(.*)', text)
points = re.findall(r'(URI|DirName):(.*)', x509('-ext', 'crlDistributionPoints'))
renamed = {'Certificate Sign': 'keyCertSign', 'CRL Sign': 'cRLSign'}
want = {'version': int(re.search(r'Version: (\d+)', text)[1]), 'serial': serial,
        'sha1': field('-fingerprint').replace(':', ''), 'not_before': date('-startdate'), 'not_after': date('-enddate'),
        'key_algorithm': re.search('Public Key Algorithm: (.*)', text)[1],
        'signature_algorithm': re.search('Signature Algorithm: (.*)', text)[1],
        'key_usage': usage and [renamed.get(u, u[0].lower() + u[1:].replace(' ', '')) for u in usage[1].split(', ')],
        'crl_urls': [u if kind == 'URI' else 'ldap:/%s?certificateRevocationList;binary' % ','.join(
            reversed(u.replace(' = ', '=').split(', '))) for kind, u in points],
        'ocsp_urls': x509('-ocsp_uri').split()[:1],
        **{name: [l.strip().split('=', 1) for l in x509('-' + name).splitlines()[1:]] for name in ('subject', 'issuer')}}
got = json.loads(out) if out.startswith('{') else None
for key, value in want.items():
    if got is not None and got[key] != value:
        print('%s: %r, openssl %r' % (key, got[key], value))
    shown = [v[1] if isinstance(v, list) else v for v in (value if isinstance(value, list) else [value])]
    for item in [v for v in shown if v is not None and str(v) not in out] if got is None else []:
        print('%s: %r not shown' % (key, item)))";

// openssl's names on stdin as oid=bytes lines: a UTF8String in code page 932,
// every other string type as stored.
const char kNamesOracle[] = R"(import re, sys
for oid, kind, value in re.findall(r'(\S+)=(\w+):#(\w*)', sys.stdin.read()):
    value = bytes.fromhex(value)
    value = value.decode().encode('cp932') if kind == 'UTF8STRING' else value
    sys.stdout.buffer.write(b'%s=%s\n' % (oid.encode(), value)))";

const TempDir& pki() {
  static const struct Pki : TempDir {
    Pki() {
      write("show.py", bytes(kShowOracle));
      write("names.py", bytes(kNamesOracle));
      write("make.sh", bytes(kMake));
      const auto r = run("cd " + shellQuote(path()) + " && bash make.sh " + shellQuote(testPki().path()) +
                         " " + shellQuote(kRows) + " >/dev/null");
      EXPECT_EQ(r.exitCode, 0) << r.err;
    }
  } made;
  return made;
}
std::string path(const std::string& name) { return shellQuote(pki().file(name)); }
std::string contents(const std::string& name) { return text(readFile(pki().file(name))); }
std::string fingerprint(const std::string& name) { return sha1Fingerprint(pki().file(name)); }
PDFCert load(const std::string& name) {
  PDFCert cert;
  std::istringstream in(contents(name));
  cert.loadX509(in, true);
  return cert;
}

// Every field through `sealmark cert show`, JSON and table; the names and
// the serial number as the library hands them out.
TEST(CertFields, AgreeWithOpenssl) {
  for (const std::string row : {"utf8", "bmp", "long", "negative", "signer", "badpath"}) {
    const std::string pem = path(row + ".pem");
    for (const char* json : {"--json ", ""}) {
      const auto r = run(sealmark("cert show " + (json + pem)) + " | python3 " + path("show.py") + " " + pem);
      EXPECT_EQ(r.exitCode, 0) << r.err;
      EXPECT_EQ(r.out, "") << row << " " << json;
    }
    PDFCert cert = load(row + ".pem");
    std::string names;
    std::vector<std::string> oids, values;
    for (int issuer = 0; issuer < 2; ++issuer) {
      ASSERT_TRUE(issuer ? cert.getIssuer(oids, values) : cert.getSubject(oids, values));
      for (std::size_t i = 0; i < oids.size(); ++i) names += oids[i] + "=" + values[i] + "\n";
    }
    const std::string nameopt = " -nameopt oid,show_type,dump_all,dump_nostr,sep_multiline | python3 ";
    const std::string expected =
        oracle("openssl x509 -noout -subject -issuer -in " + pem + nameopt + path("names.py"));
    EXPECT_EQ(names, expected + "\n") << row;
    // The magnitude's bytes in 32 bits: four with the top bit set come out negative, more throw.
    const std::string serial = oracle("openssl x509 -noout -serial -in " + pem).substr(7);
    const std::string magnitude = serial.substr(serial[0] == '-' ? 1 : 0);
    if (magnitude.size() > 8) {
      EXPECT_THROW(cert.getSerial(), std::overflow_error) << row;
    } else {
      EXPECT_EQ(cert.getSerial(), static_cast<int>(std::stoul(magnitude, nullptr, 16))) << row;
    }
  }
}

// Each row: a certificate, a moment inside its period, one outside.  bmp is
// valid from 2024-01-01 00:00:00 up to, not including, 2024-01-31 00:00:00;
// long from 2000 to 2100; utf8 up to 2049-12-31 23:59:59.  No time ("now"),
// or one before 1970, means now.  A "-013" zone reads its one minute digit,
// "+013" needs two and takes the hours alone.
TEST(CertFields, ValidityPublicKeyAndOidNames) {
  std::istringstream table(R"(bmp 20240101000000Z 20231231235959Z
bmp 20240130235959Z 20240131000000Z
bmp 20240101090000+0900 20240101085959+0900
bmp 20231231223000-0130 20231231222959-0130
bmp 202401010000 2023123123
bmp 20231231225700-013 20231231225659-013
bmp 20240101010000+013 20240101005959+013
bmp 20240115000000Z now
long 19600101000000Z 21000101000000Z
long now 21000101000000Z
utf8 20491231235958Z 20491231235959Z)");
  const auto at = [](const std::string& time) { return time == "now" ? nullptr : time.c_str(); };
  for (std::string row, inside, outside; table >> row >> inside >> outside;) {
    PDFCert cert = load(row + ".pem");
    EXPECT_TRUE(cert.isValid(at(inside)) && !cert.isValid(at(outside)))
        << row << " " << inside << " " << outside;
  }
  EXPECT_THROW(load("bmp.pem").isValid("202401011"), std::out_of_range);
  EXPECT_THROW(load("bmp.pem").isValid("2024+0900"), std::out_of_range);
  // The subjectPublicKey of an RSA key is its DER RSAPublicKey.
  const std::string rsa =
      " | openssl rsa -pubin -RSAPublicKey_out -outform DER | od -An -v -tx1 | tr -d ' \\n'";
  EXPECT_EQ(load("signer.pem").getPublicKey(),
            oracle("openssl x509 -noout -pubkey -in " + path("signer.pem") + rsa + " | tr a-f A-F"));
  // Only numeric identifiers are looked up: "CN" is as unknown as an unregistered one.
  const char* const oidNames[][2] = {{"2.5.4.3", "CN/commonName"}, {"", "/"}, {"CN", "UNDEF/undefined"}};
  for (const auto& [oid, names] : oidNames) {
    std::string shortName = "x", longName = "y";
    PDFCert().getOidName(oid, shortName, longName);
    EXPECT_EQ(shortName + "/" + longName, names) << oid;
  }
}

TEST(CertObject, EmptyCopiesAndHandles) {
  PDFCert empty;
  TesseraCommon::TSSmartPtr<PDF_Sealmark::PDFCertWinImpl> win(new PDF_Sealmark::PDFCertWinImpl, true);
  std::vector<std::string> keys{"x"}, values{"y"};
  std::string hex = "untouched";
  std::ostringstream out;
  std::istringstream rubbish("not a certificate");
  EXPECT_FALSE(empty.getX509() || empty.getdupX509() || empty.getPKey() || empty.getValid() ||
               empty.getVersion() || empty.getSerial() || empty.getKeyUsage() ||
               empty.getIssuer(keys, values) || empty.isValid(nullptr) || empty.getHashHex(hex) ||
               empty.saveX509(out, true) || empty.savePkcs12(out, "pw", "name") ||
               empty.loadX509(rubbish, true) || empty.isWindowsCert() || !keys.empty() || !values.empty() ||
               hex != "untouched" || !out.str().empty() || !empty.getSerialHex().empty() ||
               win->syncWinCert(PDFCertImpl::implOf(empty)));
  // Copies share one state: a load through one is seen through the other,
  // until an assignment separates them.  A copy outlives its original;
  // assigning an object to itself changes nothing.
  std::vector<PDFCert> kept{load("ca.pem")};
  PDFCert copy(kept[0]);
  std::istringstream signer(contents("signer.pem"));
  ASSERT_TRUE(copy.loadX509(signer, false));
  copy = load("ca.pem");
  const PDFCert& self = copy;
  copy = self;
  EXPECT_EQ(hashOf(kept[0]) + hashOf(copy), fingerprint("signer.pem") + fingerprint("ca.pem"));
  // getdupX509 hands out a copy of the caller's own; the platform context holds the DER.
  PDF_Sealmark::ossl::UniquePtr<X509> dup(reinterpret_cast<X509*>(copy.getdupX509()));
  ASSERT_TRUE(dup && copy.isWindowsCert() && reinterpret_cast<PDFCert::Handle>(dup.get()) != copy.getX509());
  EXPECT_EQ(X509_cmp(dup.get(), reinterpret_cast<X509*>(copy.getX509())), 0);
  ASSERT_TRUE(win->syncWinCert(PDFCertImpl::implOf(copy)));
  const auto& der = win->getContext()->encoded;
  EXPECT_EQ(std::string(der.begin(), der.end()), contents("ca.der"));
}

// A failed parse leaves no certificate; "DER" takes PEM too (every load()
// here relies on it), PEM only PEM; a PEM file gives its first certificate.
// A stream is read whole from its first byte, or not at all.
TEST(CertFiles, X509AndPkcs12) {
  for (const auto& [file, der, loads] : std::initializer_list<std::tuple<const char*, bool, bool>>{
           {"signer.der", false, false}, {"two.pem", false, true}, {"signer.p12", true, false}}) {
    PDFCert cert = load("ca.pem");
    std::istringstream in(contents(file));
    EXPECT_EQ(cert.loadX509(in, der), loads) << file << " der " << der;
    EXPECT_EQ(hashOf(cert), loads ? fingerprint("signer.pem") : "") << file << " der " << der;
  }
  std::istringstream spent(contents("signer.der")), empty;
  spent.seekg(0, std::ios::end);
  spent.get();  // eof and fail set
  PDFCert cert;
  ASSERT_TRUE(cert.loadX509(spent, true));
  std::ifstream unopened, throwing;  // neither can be measured
  throwing.exceptions(std::ios::failbit | std::ios::badbit);
  for (std::istream* in : std::initializer_list<std::istream*>{&unopened, &throwing, &empty}) {
    EXPECT_FALSE(cert.loadX509(*in, true) || cert.loadPkcs12(*in, "test"));
  }
  std::ostringstream der, pem, out;
  ASSERT_TRUE(cert.saveX509(der, true) && cert.saveX509(pem, false));
  EXPECT_EQ(der.str() + pem.str(), contents("signer.der") + contents("signer.pem"));

  // PKCS#12: not read without a password, read with a wrong one and then
  // refused, leaving nothing; never saved without a key.
  const char* const refused[][2] = {
      {"signer.p12", nullptr}, {"signer.p12", ""}, {"nopass.p12", ""}, {"signer.p12", "wrong"}};
  for (const auto& [file, password] : refused) {
    std::istringstream in(contents(file));
    EXPECT_FALSE(cert.loadPkcs12(in, password) || cert.savePkcs12(out, "pw", "name")) << file;
    EXPECT_EQ(hashOf(cert), password && *password ? "" : fingerprint("signer.pem")) << file;
  }
  std::istringstream in(contents("signer.p12"));
  PDFCertImpl::implOf(cert)->valid = 1;
  ASSERT_TRUE(cert.loadPkcs12(in, "test"));
  auto* key = reinterpret_cast<EVP_PKEY*>(cert.getPKey());
  EXPECT_EQ(cert.getValid(), 0);
  EXPECT_EQ(X509_check_private_key(reinterpret_cast<X509*>(cert.getX509()), key), 1);
  EXPECT_FALSE(cert.savePkcs12(out, nullptr, "name") || cert.savePkcs12(out, "", "name") ||
               cert.savePkcs12(out, "pw", nullptr) || !out.str().empty());
  ASSERT_TRUE(cert.savePkcs12(out, "again", ""));
  const std::string saved = shellQuote(pki().write("saved.p12", bytes(out.str())));
  // The key, the certificate and the further certificate.
  EXPECT_EQ(oracle("openssl pkcs12 -passin pass:again -nodes -in " + saved + " | grep -c -- -BEGIN"), "3");
  std::istringstream again(out.str()), ca(contents("ca.pem"));
  ASSERT_TRUE(cert.loadPkcs12(again, "again"));
  EXPECT_EQ(hashOf(cert) + std::to_string(sk_X509_num(PDFCertImpl::implOf(cert)->caCerts)),
            fingerprint("signer.pem") + "1");
  // A later loadX509 drops the key and the further certificates.
  ASSERT_TRUE(cert.loadX509(ca, false));
  EXPECT_TRUE(cert.getPKey() == 0 && PDFCertImpl::implOf(cert)->caCerts == nullptr);
}

// The names of the extensions in `openssl x509 -text` on stdin, in order.
const char kExtensionNames[] =
    R"( | sed -n 's/^ \{12\}\(X509v3 \)\?\([A-Z].*\): *\(critical\)\?$/\2\3/p' | tr '\n' '|')";
const std::string kGeneratedExtensions =
    "Basic Constraints|Netscape Comment|Subject Key Identifier|Authority Key Identifier|Key Usage|";

// generate over the selectors, read back by openssl: key size, extensions
// in order with the key usage, the comment's quotes and the alternative name
// last; the subject's string types; a self-signature that verifies.
TEST(CertGenerate, SelectorsExtensionsAndNames) {
  // Values in ICU's default code page, UTF-8 on Linux: 山田 has lead bytes
  // (E5, E7), a lone B1 has none.
  std::vector<std::string> oids{
      "2.5.4.6",      "CN", "2.5.4.3", "2.5.4.11", "1.2.840.113549.1.9.1", "1.2.840.113549.1.9.1",
      "1.2.3.4.5.6.7"};
  std::vector<std::string> values{"JP", "dropped", "\xE5\xB1\xB1\xE7\x94\xB0", "\xB1", "a@b.jp", "", "x"};
  const std::string names =
      "2.5.4.6=PRINTABLESTRING:#4A50|2.5.4.3=UTF8STRING:#E5B1B1E794B0|"
      "2.5.4.11=PRINTABLESTRING:#B1|1.2.840.113549.1.9.1=IA5STRING:#6140622E6A70|"
      "1.2.840.113549.1.9.1=PRINTABLESTRING:#|";
  for (const auto& [keySize, usage, alt, bits, usages] :
       std::initializer_list<std::tuple<int, int, std::string, int, std::string>>{
           {0, 0, "", 1024, "Digital Signature, Non Repudiation"},
           {3, 1, "email:a@b.jp", 1024, "Non Repudiation, Data Encipherment"},
           {-1, 2, "", 1024, "Digital Signature, Non Repudiation, Data Encipherment"},
           {1, 7, "DNS:x.example,IP:127.0.0.1", 2048, "Digital Signature, Non Repudiation"},
           {2, 0, "", 4096, "Digital Signature, Non Repudiation"}}) {
    PDFCert cert;
    ASSERT_TRUE(cert.generate(4660, 30, oids, values, alt, keySize, usage)) << keySize;
    std::ostringstream out;
    ASSERT_TRUE(cert.saveX509(out, false));
    const std::string file = pki().write("generated.pem", bytes(out.str())), pem = shellQuote(file);
    const std::string text = oracle("openssl x509 -noout -text -in " + pem);
    EXPECT_THAT(text, testing::HasSubstr("Public-Key: (" + std::to_string(bits) + " bit)"));
    EXPECT_THAT(text, testing::HasSubstr("Exponent: 65537 (0x10001)\n"));
    EXPECT_THAT(text, testing::HasSubstr("X509v3 Key Usage: \n                " + usages + "\n"));
    EXPECT_THAT(text, testing::HasSubstr("\n                \"Larkvale Scrivener Generate Certificate\"\n"));
    EXPECT_EQ(oracle("openssl x509 -noout -text -in " + pem + kExtensionNames),
              kGeneratedExtensions + (alt.empty() ? "" : "Subject Alternative Name|"));
    EXPECT_EQ(
        oracle(
            "openssl x509 -noout -subject -issuer -nameopt oid,show_type,dump_all,dump_nostr,sep_multiline "
            "-in " +
            pem + " | sed 1d | sed 's/^ *//' | tr '\\n' '|'"),
        names + "issuer=|" + names);
    EXPECT_EQ(oracle("openssl verify -check_ss_sig -CAfile " + pem + " " + pem), file + ": OK");
    const auto* x509 = reinterpret_cast<X509*>(cert.getX509());
    EXPECT_EQ(X509_check_private_key(x509, reinterpret_cast<EVP_PKEY*>(cert.getPKey())), 1);
    EXPECT_EQ(X509_check_ca(const_cast<X509*>(x509)), 0);
    EXPECT_TRUE(cert.getVersion() == 2 && cert.getSerial() == 4660 && cert.isValid(nullptr));
    EXPECT_EQ(PDF_Sealmark::textToTime(cert.getNotAfter().c_str()) -
                  PDF_Sealmark::textToTime(cert.getNotBefore().c_str()),
              30 * 86400);
    EXPECT_EQ(cert.getSignAlgorithm(), "sha1WithRSAEncryption");
    // Read back, a UTF8String comes out in code page 932.
    std::vector<std::string> keys, shown, issuerKeys, issuer;
    ASSERT_TRUE(cert.getSubject(keys, shown) && cert.getIssuer(issuerKeys, issuer));
    EXPECT_TRUE(keys.size() == 5 && shown[1] == "\x8E\x52\x93\x63" && keys == issuerKeys && shown == issuer);
  }
  // Arguments refused first keep the certificate; a later failure empties it.
  PDFCert cert = load("signer.pem");
  std::vector<std::string> none, two{"2.5.4.3", "2.5.4.6"};
  for (const auto& [o, v, serial, days, alt] : std::initializer_list<
           std::tuple<std::vector<std::string>*, std::vector<std::string>*, long, long, std::string>>{
           {&none, &none, 1, 1, ""},
           {&two, &values, 1, 1, ""},
           {&oids, &values, 0, 1, ""},
           {&oids, &values, -1, 1, ""},
           {&oids, &values, 1, 0, ""},
           {&oids, &values, 1, -5, ""},
           {&oids, &values, 1, 1, "nonsense"},
           {&oids, &values, 1, 1, "email:copy"}}) {
    EXPECT_FALSE(cert.generate(serial, days, *o, *v, alt, 0, 0)) << serial << days << alt;
    EXPECT_EQ(hashOf(cert) + (cert.getPKey() ? "key" : ""), alt.empty() ? fingerprint("signer.pem") : "")
        << serial << " " << days << " " << alt;
  }
}

// `sealmark cert generate`: a PKCS#12 file that openssl opens, written in
// place of a planted link and not through it, readable by its owner only;
// a Japanese subject as `cert show` prints it.  Bad usage: exit 2, one line.
TEST(CertGenerate, Command) {
  namespace fs = std::filesystem;
  TempDir dir;
  const std::string out = dir.file("out.p12"), victim = dir.write("victim", bytes("victim"));
  fs::create_symlink(victim, out);
  const std::string base = "cert generate --output " + shellQuote(out) + " --password-file " +
                           shellQuote(dir.write("pw", bytes("secret\n"))) + " --subject ";
  const auto r = run(sealmark(base + shellQuote("CN=山田 太郎,O=テスト\\, 東京,C=JP") +
                              " --alt-name email:yamada@example.jp --serial 4660 --days 30 --usage 1"));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  struct stat st;
  ASSERT_EQ(::lstat(out.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode) && (st.st_mode & 0777) == 0600 && text(readFile(victim)) == "victim");
  const std::string p12 = "openssl pkcs12 -nokeys -passin pass:secret -in " + shellQuote(out);
  EXPECT_EQ(oracle(p12 + " | openssl x509 -noout -text" + kExtensionNames),
            kGeneratedExtensions + "Subject Alternative Name|");
  EXPECT_EQ(r.out, oracle(p12 + " | openssl x509 -noout -fingerprint | tr -d : | cut -d= -f2") + "\n");
  const auto shown =
      nlohmann::json::parse(run(sealmark("cert show --json --password secret " + shellQuote(out))).out);
  EXPECT_EQ(shown["subject"].dump() + shown["serial"].dump() + shown["key_usage"].dump(),
            R"([["2.5.4.6","JP"],["2.5.4.10","テスト, 東京"],["2.5.4.3","山田 太郎"]])"
            R"("1234"["nonRepudiation","dataEncipherment"])");
  EXPECT_EQ(shown["sha1"].get<std::string>() + "\n", r.out);
  const std::string noDir = dir.file("none/x.p12");
  for (const auto& [args, about] : std::initializer_list<std::pair<std::string, std::string>>{
           {"CN=x --output " + noDir, noDir + ": No such file or directory"},
           {"CN", "cert generate: --subject: 'CN' is not TYPE=VALUE"},
           {"XX=1", "cert generate: --subject: unknown attribute type 'XX'"},
           {"CN=Müller", "cert generate: --subject: 'Müller' can't be stored"},
           {"CN=x --key-size 1024", "cert generate: --key-size takes 2048 or 4096"},
           {"CN=x --usage 3", "cert generate: --usage takes 0, 1 or 2"},
           {"CN=x --serial 0", "cert generate: --serial takes 1 to 2147483647"},
           {"CN=x --days 24856", "cert generate: --days takes 1 to 24855"},
           {"CN=x --password ''", "cert generate: --password and --password-file exclude each other"},
           {"CN=x --alt-name nonsense", "cert generate: --alt-name 'nonsense' is not a subjectAltName"}}) {
    const auto failed = run(sealmark(base + args));
    EXPECT_EQ(failed.exitCode, 2) << args;
    EXPECT_EQ(failed.err.rfind("sealmark: " + about, 0), 0u) << args << ": " << failed.err;
    EXPECT_EQ(failed.err.find('\n') + 1, failed.err.size()) << failed.err;
  }
  EXPECT_EQ(run(sealmark("cert generate --subject CN=x --password p")).err,
            "sealmark: cert generate: --output is required (see 'sealmark cert generate --help')\n");
}

// Unreadable input and bad usage: exit code 2 and one line "sealmark: NAME:
// reason" on stderr.  DER and PKCS#12 show what the PEM file does.
TEST(CertShow, FormatsUsageAndUnreadableInput) {
  const std::string p12 = path("signer.p12"), missing = pki().file("missing.pem");
  for (const auto& [args, exitCode, about] : std::initializer_list<std::tuple<std::string, int, std::string>>{
           {"show --json " + path("signer.der"), 0, "signer.pem"},
           {"show --password test " + p12, 0, "signer.pem"},
           {"show " + p12, 2, pki().file("signer.p12")},
           {"show --password wrong " + p12, 2, pki().file("signer.p12")},
           {"show " + shellQuote(missing), 2, missing},
           {"show", 2, "cert"},
           {"frob x", 2, "cert"},
           {"show --bogus " + path("ca.pem"), 2, "cert"}}) {
    const auto r = run(sealmark("cert " + args));
    EXPECT_EQ(r.exitCode, exitCode) << args;
    if (exitCode == 0) {
      const std::string shown = shellQuote(pki().write("shown", bytes(r.out)));
      EXPECT_EQ(oracle("python3 " + path("show.py") + " " + path(about) + " < " + shown), "") << args;
    } else {
      EXPECT_EQ(r.err.rfind("sealmark: " + about + ": ", 0), 0u) << args << ": " << r.err;
      EXPECT_EQ(r.err.find('\n') + 1, r.err.size()) << r.err;
      EXPECT_EQ(r.out, "") << args;
    }
  }
  EXPECT_EQ(run(sealmark("cert show --help")).out.rfind("usage: sealmark cert show", 0), 0u);
}

}  // namespace
