// Real revocation peers on 127.0.0.1 for the OCSP and CRL tests.
//
// TestCa: a certificate authority run with the openssl command.  It keeps an
// `openssl ca` database (index.txt) in a temporary directory; entries marked
// valid or revoked (with any revocation date) there are what
// `openssl ca -gencrl` puts into its CRLs and what `openssl ocsp` answers.
//
//   sealtest::TestCa ca;
//   std::string leaf = ca.issue("leaf", "1001", "crlDistributionPoints=URI:" + url);
//   ca.markRevoked("1001", sealtest::utcTime(std::time(nullptr) - 3600));
//   std::vector<unsigned char> crl = ca.crl();
//
// TestOcspResponder: `openssl ocsp -index ... -reqin ... -respout ...` behind
// a LoopbackHttpServer, signing with the CA or a delegated responder, and
// able to drop or change the nonce of a request before the responder sees
// it.
//
// TestLdapDirectory: slapd on a loopback port with a throw-away
// configuration, loaded with slapadd; stopped (and waited for) when the
// object dies.
#pragma once

#include <sys/types.h>

#include <openssl/x509.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "support/loopback_http.h"
#include "support/test_util.h"

namespace sealtest {

// "YYMMDDHHMMSSZ" (the index and UTCTime form) and "YYYYMMDDHHMMSSZ" (the
// library's date text) of a moment.
std::string utcTime(std::time_t t);
std::string dateText(std::time_t t);

class TestCa {
 public:
  // subject in openssl's "/C=JP/O=.../CN=..." form.
  explicit TestCa(const std::string& subject = "/C=JP/O=Sealmark Test/CN=Loopback Test CA");

  const std::string& subject() const { return subject_; }
  const std::string& certFile() const { return certFile_; }
  const std::string& keyFile() const { return keyFile_; }
  const TempDir& dir() const { return dir_; }

  // A certificate for CN=name with this serial (hex), issued by the CA, with
  // the given extension lines (openssl x509v3 configuration; further
  // sections may follow).  Gives the PEM file; the key is in name.key.  The
  // serial is entered in the database as valid.
  std::string issue(const std::string& name, const std::string& serialHex, const std::string& extensions);
  // A delegated OCSP responder certificate (id-kp-OCSPSigning).
  std::string issueOcspSigner(const std::string& name);
  std::string keyOf(const std::string& certFile) const;

  // Database entries.
  void markRevoked(const std::string& serialHex, const std::string& revocationUtc);
  // Takes the serial out of the database: the responder then says unknown.
  void forget(const std::string& serialHex);
  // A CRL of the current database, DER, made by `openssl ca -gencrl`.
  std::vector<unsigned char> crl(int days = 1) const;
  // The same CRL signed by another key: keyFile of another CA whose
  // certificate has the same subject.
  std::vector<unsigned char> crlSignedBy(const TestCa& other) const;

  const std::string& indexFile() const { return indexFile_; }

 private:
  void writeIndex() const;
  std::vector<unsigned char> gencrl(const std::string& keyFile, const std::string& certFile, int days) const;

  struct Entry {
    std::string serial;
    std::string revoked;  // empty while valid
    std::string name;
  };
  TempDir dir_;
  std::string subject_;
  std::string certFile_;
  std::string keyFile_;
  std::string leafKeyFile_;
  std::string config_;
  std::string indexFile_;
  std::vector<Entry> entries_;
};

// Takes a DER CRL, moves its dates (seconds from now) and signs it again
// with the key in keyFile.
std::vector<unsigned char> redateCrl(const std::vector<unsigned char>& der, const std::string& keyFile,
                                     long lastUpdateFromNow, long nextUpdateFromNow);

class TestOcspResponder {
 public:
  enum class Nonce { kEcho, kDrop, kReplace };

  // Answers for ca's database, signing with signerCert/signerKey (the CA's
  // own by default).
  explicit TestOcspResponder(const TestCa& ca, std::string signerCert = "", std::string signerKey = "");
  ~TestOcspResponder();

  std::string url() const { return server_->url("/ocsp"); }
  void setNonce(Nonce nonce) { nonce_ = nonce; }
  int answered() const { return answered_.load(); }
  LoopbackHttpServer& server() { return *server_; }

 private:
  Reply answer(const HttpRequest& request);

  const TestCa& ca_;
  std::string signerCert_;
  std::string signerKey_;
  std::atomic<Nonce> nonce_{Nonce::kEcho};
  std::atomic<int> answered_{0};
  TempDir dir_;
  std::unique_ptr<LoopbackHttpServer> server_;
};

// Serves fixed bodies by path over http; anything else is 404.
class CrlServer {
 public:
  CrlServer();
  void put(const std::string& path, const std::vector<unsigned char>& body);
  void remove(const std::string& path);
  std::string url(const std::string& path) const { return server_->url(path); }
  // GET requests for this path so far.
  int hits(const std::string& path) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::vector<unsigned char>>> bodies_;
  std::unique_ptr<LoopbackHttpServer> server_;
};

class TestLdapDirectory {
 public:
  // A directory under suffix (such as "c=JP") holding the entries of ldif.
  // Check available() before use; whyNot() says what failed.
  TestLdapDirectory(const std::string& suffix, const std::string& ldif);
  ~TestLdapDirectory();
  TestLdapDirectory(const TestLdapDirectory&) = delete;
  TestLdapDirectory& operator=(const TestLdapDirectory&) = delete;

  bool available() const { return pid_ > 0; }
  const std::string& whyNot() const { return why_; }
  int port() const { return port_; }
  // "ldap://127.0.0.1:PORT/"
  std::string url() const;

 private:
  void stop();

  TempDir dir_;
  pid_t pid_ = -1;
  int port_ = 0;
  std::string why_;
};

// A certificate file (DER or PEM) as the library reads it; a failed load is
// a test failure.
PDF_Sealmark::PDFCert loadCertFile(const std::string& path);
// The X509 a certificate lends, borrowed.
inline X509* x509Of(const PDF_Sealmark::PDFCert& cert) { return reinterpret_cast<X509*>(cert.getX509()); }

}  // namespace sealtest
