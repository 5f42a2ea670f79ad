#include "support/test_ca.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <openssl/ocsp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "support/test_tsa.h"

namespace sealtest {

namespace {

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string formatTime(std::time_t t, const char* format) {
  std::tm fields{};
  gmtime_r(&t, &fields);
  char text[32];
  std::strftime(text, sizeof text, format, &fields);
  return text;
}

// Rewrites the request's nonce so that the responder echoes nothing, or a
// nonce the client never sent.
std::vector<unsigned char> withNonce(const std::vector<unsigned char>& der, TestOcspResponder::Nonce nonce) {
  const unsigned char* p = der.data();
  OCSP_REQUEST* request = d2i_OCSP_REQUEST(nullptr, &p, static_cast<long>(der.size()));
  if (request == nullptr) return der;
  const int at = OCSP_REQUEST_get_ext_by_NID(request, NID_id_pkix_OCSP_Nonce, -1);
  if (at >= 0) X509_EXTENSION_free(OCSP_REQUEST_delete_ext(request, at));
  if (nonce == TestOcspResponder::Nonce::kReplace) {
    unsigned char other[16] = "not-your-nonce!";
    OCSP_request_add1_nonce(request, other, sizeof other);
  }
  unsigned char* out = nullptr;
  const int n = i2d_OCSP_REQUEST(request, &out);
  std::vector<unsigned char> bytes;
  if (n > 0) bytes.assign(out, out + n);
  OPENSSL_free(out);
  OCSP_REQUEST_free(request);
  return bytes;
}

}  // namespace

std::string utcTime(std::time_t t) { return formatTime(t, "%y%m%d%H%M%SZ"); }
std::string dateText(std::time_t t) { return formatTime(t, "%Y%m%d%H%M%SZ"); }

// --- TestCa -------------------------------------------------------------------------

TestCa::TestCa(const std::string& subject) : subject_(subject) {
  certFile_ = dir_.file("ca.pem");
  keyFile_ = dir_.file("ca.key");
  leafKeyFile_ = dir_.file("leaf.key");
  indexFile_ = dir_.file("index.txt");
  config_ = dir_.file("ca.cnf");
  // EC keys: as good as RSA here and much quicker to make.
  openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3 -subj " + shellQuote(subject) +
          " -addext 'basicConstraints=critical,CA:true' -addext 'keyUsage=critical,keyCertSign,cRLSign'"
          " -keyout " + shellQuote(keyFile_) + " -out " + shellQuote(certFile_));
  openssl("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out " + shellQuote(leafKeyFile_));
  writeText(config_,
            "[ ca ]\n"
            "default_ca = loopback_ca\n"
            "[ loopback_ca ]\n"
            "database = " + indexFile_ + "\n"
            "crlnumber = " + dir_.file("crlnumber") + "\n"
            "default_md = sha256\n"
            "unique_subject = no\n");
  writeText(dir_.file("crlnumber"), "01\n");
  writeIndex();
}

std::string TestCa::issue(const std::string& name, const std::string& serialHex, const std::string& extensions) {
  const std::string csr = dir_.file(name + ".csr");
  const std::string cert = dir_.file(name + ".pem");
  const std::string ext = dir_.file(name + ".ext");
  // All leaves share one key: the tests are about names and extensions.
  openssl("req -new -key " + shellQuote(leafKeyFile_) + " -subj " + shellQuote("/CN=" + name) + " -out " +
          shellQuote(csr));
  writeText(ext, "basicConstraints=CA:false\n" + extensions + "\n");
  openssl("x509 -req -days 2 -in " + shellQuote(csr) + " -CA " + shellQuote(certFile_) + " -CAkey " +
          shellQuote(keyFile_) + " -set_serial 0x" + serialHex + " -extfile " + shellQuote(ext) + " -out " +
          shellQuote(cert));
  openssl("pkey -in " + shellQuote(leafKeyFile_) + " -out " + shellQuote(dir_.file(name + ".key")));
  bool known = false;
  for (Entry& e : entries_) {
    if (e.serial == serialHex) {
      e.name = "/CN=" + name;
      known = true;
    }
  }
  if (!known) entries_.push_back({serialHex, "", "/CN=" + name});
  writeIndex();
  return cert;
}

std::string TestCa::issueOcspSigner(const std::string& name) {
  return issue(name, "7F" + std::to_string(entries_.size() + 10),
               "extendedKeyUsage=critical,OCSPSigning\nkeyUsage=critical,digitalSignature");
}

std::string TestCa::keyOf(const std::string& certFile) const {
  return certFile.substr(0, certFile.size() - 4) + ".key";
}

void TestCa::markRevoked(const std::string& serialHex, const std::string& revocationUtc) {
  for (Entry& e : entries_) {
    if (e.serial == serialHex) {
      e.revoked = revocationUtc;
      writeIndex();
      return;
    }
  }
  entries_.push_back({serialHex, revocationUtc, "/CN=serial " + serialHex});
  writeIndex();
}

void TestCa::forget(const std::string& serialHex) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->serial == serialHex) {
      entries_.erase(it);
      break;
    }
  }
  writeIndex();
}

void TestCa::writeIndex() const {
  // openssl ca's database: status, expiry, revocation date, serial, file
  // name, subject; tab-separated.
  std::string text;
  for (const Entry& e : entries_) {
    text += (e.revoked.empty() ? "V" : "R") + std::string("\t491231235959Z\t") + e.revoked + "\t" + e.serial +
            "\tunknown\t" + e.name + "\n";
  }
  writeText(indexFile_, text);
}

std::vector<unsigned char> TestCa::gencrl(const std::string& keyFile, const std::string& certFile, int days) const {
  const std::string pem = dir_.file("crl.pem");
  const std::string der = dir_.file("crl.der");
  openssl("ca -gencrl -batch -config " + shellQuote(config_) + " -keyfile " + shellQuote(keyFile) + " -cert " +
          shellQuote(certFile) + " -crldays " + std::to_string(days) + " -out " + shellQuote(pem));
  openssl("crl -in " + shellQuote(pem) + " -outform DER -out " + shellQuote(der));
  return readFile(der);
}

std::vector<unsigned char> TestCa::crl(int days) const { return gencrl(keyFile_, certFile_, days); }

std::vector<unsigned char> TestCa::crlSignedBy(const TestCa& other) const {
  return gencrl(other.keyFile(), other.certFile(), 1);
}

std::vector<unsigned char> redateCrl(const std::vector<unsigned char>& der, const std::string& keyFile,
                                     long lastUpdateFromNow, long nextUpdateFromNow) {
  const unsigned char* p = der.data();
  X509_CRL* crl = d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size()));
  FILE* f = std::fopen(keyFile.c_str(), "r");
  EVP_PKEY* key = f ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr) : nullptr;
  if (f) std::fclose(f);
  std::vector<unsigned char> out;
  if (crl != nullptr && key != nullptr) {
    ASN1_TIME* last = X509_time_adj_ex(nullptr, 0, lastUpdateFromNow, nullptr);
    ASN1_TIME* next = X509_time_adj_ex(nullptr, 0, nextUpdateFromNow, nullptr);
    X509_CRL_set1_lastUpdate(crl, last);
    X509_CRL_set1_nextUpdate(crl, next);
    ASN1_TIME_free(last);
    ASN1_TIME_free(next);
    if (X509_CRL_sign(crl, key, EVP_sha256()) > 0) {
      unsigned char* bytes = nullptr;
      const int n = i2d_X509_CRL(crl, &bytes);
      if (n > 0) out.assign(bytes, bytes + n);
      OPENSSL_free(bytes);
    }
  }
  EVP_PKEY_free(key);
  X509_CRL_free(crl);
  if (out.empty()) throw std::runtime_error("cannot re-date the CRL");
  return out;
}

// --- TestOcspResponder ----------------------------------------------------------------

TestOcspResponder::TestOcspResponder(const TestCa& ca, std::string signerCert, std::string signerKey)
    : ca_(ca),
      signerCert_(signerCert.empty() ? ca.certFile() : std::move(signerCert)),
      signerKey_(signerKey.empty() ? ca.keyFile() : std::move(signerKey)) {
  server_ = std::make_unique<LoopbackHttpServer>([this](const HttpRequest& r) { return answer(r); });
}

TestOcspResponder::~TestOcspResponder() { server_.reset(); }

Reply TestOcspResponder::answer(const HttpRequest& request) {
  const std::string n = std::to_string(answered_.load() + 1);
  std::vector<unsigned char> body = request.body;
  if (nonce_.load() != Nonce::kEcho) body = withNonce(body, nonce_.load());
  const std::string query = dir_.write("request" + n + ".der", body);
  const std::string reply = dir_.file("response" + n + ".der");
  const CommandResult r = run("openssl ocsp -index " + shellQuote(ca_.indexFile()) + " -CA " +
                              shellQuote(ca_.certFile()) + " -rsigner " + shellQuote(signerCert_) + " -rkey " +
                              shellQuote(signerKey_) + " -ndays 1 -reqin " + shellQuote(query) + " -respout " +
                              shellQuote(reply));
  if (r.exitCode != 0) return Reply::of("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
  ++answered_;
  const std::vector<unsigned char> bytes = readFile(reply);
  return Reply::ok(std::string(bytes.begin(), bytes.end()), "application/ocsp-response");
}

// --- CrlServer ------------------------------------------------------------------------

CrlServer::CrlServer() {
  LoopbackHttpServer::Options options;
  options.maxConnections = 200;
  server_ = std::make_unique<LoopbackHttpServer>(
      [this](const HttpRequest& request) {
        // "GET /path HTTP/1.1"
        const std::size_t from = request.requestLine.find(' ') + 1;
        const std::string path = request.requestLine.substr(from, request.requestLine.find(' ', from) - from);
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& body : bodies_) {
          if (body.first == path)
            return Reply::ok(std::string(body.second.begin(), body.second.end()), "application/pkix-crl");
        }
        return Reply::of("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
      },
      options);
}

void CrlServer::put(const std::string& path, const std::vector<unsigned char>& body) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& b : bodies_) {
    if (b.first == path) {
      b.second = body;
      return;
    }
  }
  bodies_.emplace_back(path, body);
}

void CrlServer::remove(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = bodies_.begin(); it != bodies_.end(); ++it) {
    if (it->first == path) {
      bodies_.erase(it);
      return;
    }
  }
}

int CrlServer::hits(const std::string& path) const {
  int n = 0;
  for (const HttpRequest& r : server_->requests()) {
    if (r.requestLine.rfind("GET " + path + " ", 0) == 0) ++n;
  }
  return n;
}

// --- TestLdapDirectory ------------------------------------------------------------------

namespace {

std::string findSlapd() {
  for (const char* candidate : {"/usr/sbin/slapd", "/usr/local/sbin/slapd", "/usr/libexec/slapd"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

bool portAnswers(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

TestLdapDirectory::TestLdapDirectory(const std::string& suffix, const std::string& ldif) {
  const std::string slapd = findSlapd();
  if (slapd.empty()) {
    why_ = "slapd is not installed (scripts/install-deps.sh installs it)";
    return;
  }
  const std::string slapadd = slapd.substr(0, slapd.rfind('/') + 1) + "slapadd";
  ::mkdir(dir_.file("db").c_str(), 0700);
  const std::string config = dir_.file("slapd.conf");
  std::string modules;
  if (::access("/usr/lib/ldap/back_mdb.so", F_OK) == 0) modules = "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
  writeText(config,
            "include /etc/ldap/schema/core.schema\n"
            "pidfile " + dir_.file("slapd.pid") + "\n" + modules +
            "database mdb\n"
            "maxsize 10485760\n"
            "suffix \"" + suffix + "\"\n"
            "rootdn \"cn=admin," + suffix + "\"\n"
            "directory " + dir_.file("db") + "\n");
  writeText(dir_.file("data.ldif"), ldif);
  const CommandResult added = run(shellQuote(slapadd) + " -f " + shellQuote(config) + " -l " +
                                  shellQuote(dir_.file("data.ldif")));
  if (added.exitCode != 0) {
    why_ = "slapadd failed: " + added.err;
    return;
  }
  port_ = unusedLoopbackPort();
  const std::string listen = "ldap://127.0.0.1:" + std::to_string(port_) + "/";
  const std::string log = dir_.file("slapd.log");
  const pid_t child = ::fork();
  if (child == 0) {
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
    }
    // -d keeps slapd in the foreground, so that this process owns it.
    ::execl(slapd.c_str(), slapd.c_str(), "-f", config.c_str(), "-h", listen.c_str(), "-d", "0",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  if (child < 0) {
    why_ = "fork failed";
    return;
  }
  pid_ = child;
  // Ready once the port takes connections; give up after ten seconds.
  for (int i = 0; i < 100; ++i) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      const auto text = readFile(log);
      why_ = "slapd exited at start: " + std::string(text.begin(), text.end());
      return;
    }
    if (portAnswers(port_)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  why_ = "slapd did not answer on " + listen;
  stop();
}

std::string TestLdapDirectory::url() const { return "ldap://127.0.0.1:" + std::to_string(port_) + "/"; }

TestLdapDirectory::~TestLdapDirectory() { stop(); }

void TestLdapDirectory::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 50; ++i) {
    if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

PDF_Sealmark::PDFCert loadCertFile(const std::string& path) {
  PDF_Sealmark::PDFCert cert;
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(cert.loadX509(in, true)) << path;
  return cert;
}

}  // namespace sealtest
