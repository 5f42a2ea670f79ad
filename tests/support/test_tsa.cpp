#include "support/test_tsa.h"

#include <fstream>
#include <stdexcept>

#include <openssl/evp.h>

namespace sealtest {

namespace {

std::string base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace

std::string openssl(const std::string& arguments) {
  const CommandResult r = run("openssl " + arguments);
  if (r.exitCode != 0) throw std::runtime_error("openssl " + arguments + " failed: " + r.err);
  return r.out;
}

TestTsa::TestTsa(const std::string& user, const std::string& password) {
  const std::string d = dir_.path();
  caFile_ = dir_.file("ca.pem");
  tsaCertFile_ = dir_.file("tsa.pem");
  // EC keys: as good as RSA for the test and much quicker to make.
  openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj '/CN=Loopback Test TSA Root'"
          " -addext 'basicConstraints=critical,CA:true' -addext 'keyUsage=critical,keyCertSign,cRLSign'"
          " -keyout " + shellQuote(dir_.file("ca.key")) + " -out " + shellQuote(caFile_));
  openssl("req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=Loopback Test TSA'"
          " -keyout " + shellQuote(dir_.file("tsa.key")) + " -out " + shellQuote(dir_.file("tsa.csr")));
  writeText(dir_.file("tsa.ext"),
            "extendedKeyUsage=critical,timeStamping\nkeyUsage=critical,digitalSignature\nbasicConstraints=CA:false\n");
  openssl("x509 -req -days 2 -in " + shellQuote(dir_.file("tsa.csr")) + " -CA " + shellQuote(caFile_) + " -CAkey " +
          shellQuote(dir_.file("ca.key")) + " -set_serial 2 -extfile " + shellQuote(dir_.file("tsa.ext")) +
          " -out " + shellQuote(tsaCertFile_));
  config_ = dir_.file("openssl.cnf");
  writeText(config_,
            "[ tsa ]\n"
            "default_tsa = loopback_tsa\n"
            "[ loopback_tsa ]\n"
            "dir = " + d + "\n"
            "serial = $dir/tsaserial\n"
            "crypto_device = builtin\n"
            "signer_cert = $dir/tsa.pem\n"
            "certs = $dir/ca.pem\n"
            "signer_key = $dir/tsa.key\n"
            "signer_digest = sha256\n"
            "default_policy = 1.3.6.1.4.1.99999.1\n"
            "digests = sha1, sha256, sha384, sha512\n"
            "accuracy = secs:1\n"
            "ordering = yes\n"
            "tsa_name = yes\n"
            "ess_cert_id_chain = no\n"
            "ess_cert_id_alg = sha256\n");
  writeText(dir_.file("tsaserial"), "01\n");
  if (!user.empty()) expectedAuthorization_ = "Basic " + base64(user + ":" + password);
  server_ = std::make_unique<LoopbackHttpServer>([this](const HttpRequest& r) { return answer(r); });
}

TestTsa::~TestTsa() { server_.reset(); }

Reply TestTsa::answer(const HttpRequest& request) {
  if (!expectedAuthorization_.empty() && request.header("Authorization") != expectedAuthorization_) {
    return Reply::of(
        "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"tsa\"\r\nContent-Length: 0\r\n\r\n");
  }
  const std::string n = std::to_string(++queries_);
  const std::string query = dir_.write("query" + n + ".tsq", request.body);
  const std::string reply = dir_.file("reply" + n + ".tsr");
  const CommandResult r = run("openssl ts -reply -config " + shellQuote(config_) + " -queryfile " + shellQuote(query) +
                              " -out " + shellQuote(reply));
  if (r.exitCode != 0) return Reply::of("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
  const std::vector<unsigned char> bytes = readFile(reply);
  ++issued_;
  return Reply::ok(std::string(bytes.begin(), bytes.end()), "application/timestamp-reply");
}

}  // namespace sealtest
