// Moving a certificate between a PDFCertImpl and the caller's streams: X.509
// as DER or PEM, PKCS#12 with its key and further certificates.
#include <cxxabi.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>

#include <climits>
#include <ios>
#include <new>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

namespace {

// A PEM block with "Proc-Type: 4,ENCRYPTED" would make OpenSSL's default
// callback ask for a password on the terminal.  A certificate is never
// encrypted, so such a block is refused instead.
int noPassword(char*, int, int, void*) { return -1; }

// The MAC of a PKCS#12 file is checked before anything else, with the
// iteration count the file names.  Files from the usual tools use a few
// thousand; a count far above this one only makes a hostile file expensive.
constexpr std::int64_t kMaxMacIterations = 1000000;

bool macIterationsAcceptable(const PKCS12* p12) {
  if (p12 == nullptr) return true;  // PKCS12_parse refuses it
  const ASN1_INTEGER* iterations = nullptr;
  PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, p12);
  if (iterations == nullptr) return true;  // absent: 1
  std::int64_t count = 0;
  if (ASN1_INTEGER_get_int64(&count, iterations) != 1) return false;
  return count <= kMaxMacIterations;
}

ossl::UniquePtr<BIO> memoryOver(const std::vector<char>& bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
  return ossl::UniquePtr<BIO>(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

void writeBuffer(BIO* mem, std::ostream& out) {
  BUF_MEM* buffer = nullptr;
  BIO_get_mem_ptr(mem, &buffer);
  if (buffer != nullptr && buffer->length > 0)
    out.write(buffer->data, static_cast<std::streamsize>(buffer->length));
}

}  // namespace

std::vector<char> readWholeStream(std::istream& in) {
  std::vector<char> bytes;
  try {
    // From the first byte whatever the position or state an earlier read
    // left behind.
    in.clear();
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size == -1) return {};
    in.seekg(0, std::ios::beg);
    bytes.assign(static_cast<std::size_t>(size), 0);
    in.read(bytes.data(), static_cast<std::streamsize>(size));
  } catch (const std::bad_alloc&) {
    throw;
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    // A stream told to throw on failure.
    bytes.clear();
  }
  return bytes;
}

bool PDFCertImpl::loadX509(std::istream& in, bool der) {
  const std::vector<char> bytes = readWholeStream(in);
  if (bytes.empty()) return false;
  ossl::UniquePtr<BIO> mem = memoryOver(bytes);
  if (!mem) return false;
  // Past this point the old certificate is given up, parsed or not.
  clearAll();
  if (der) {
    x509 = d2i_X509_bio(mem.get(), nullptr);
    if (x509 == nullptr) {
      // Not DER: the same bytes may still be PEM.
      mem = memoryOver(bytes);
      if (!mem) return false;
      der = false;
    }
  }
  if (!der) x509 = PEM_read_bio_X509(mem.get(), nullptr, noPassword, nullptr);
  return x509 != nullptr;
}

bool PDFCertImpl::saveX509(std::ostream& out, bool der) const {
  if (x509 == nullptr) return false;
  ossl::UniquePtr<BIO> mem(BIO_new(BIO_s_mem()));
  if (!mem) return false;
  const int written = der ? i2d_X509_bio(mem.get(), x509) : PEM_write_bio_X509(mem.get(), x509);
  if (written != 1) return false;
  // The stream's state is the caller's business: the certificate was encoded.
  writeBuffer(mem.get(), out);
  return true;
}

bool PDFCertImpl::loadPkcs12(std::istream& in, const std::string& password) {
  // A file without a password can't be loaded: the MAC needs one.
  if (password.empty()) return false;
  const std::vector<char> bytes = readWholeStream(in);
  if (bytes.empty()) return false;
  ossl::UniquePtr<BIO> mem = memoryOver(bytes);
  if (!mem) return false;
  clearAll();
  ossl::UniquePtr<PKCS12> p12(d2i_PKCS12_bio(mem.get(), nullptr));
  if (!macIterationsAcceptable(p12.get())) return false;
  // PKCS12_parse refuses a null structure, and on failure frees what it made
  // and leaves the three outputs null.
  return PKCS12_parse(p12.get(), password.c_str(), &pkey, &x509, &caCerts) != 0;
}

bool PDFCertImpl::savePkcs12(std::ostream& out, const std::string& password, const std::string& name) const {
  if (x509 == nullptr || pkey == nullptr) return false;
  if (password.empty()) return false;
  // 0 for key and certificate algorithms, iterations and key type: OpenSSL's
  // defaults.  The further certificates of a loaded file go along.
  ossl::UniquePtr<PKCS12> p12(
      PKCS12_create(password.c_str(), name.c_str(), pkey, x509, caCerts, 0, 0, 0, 0, 0));
  if (!p12) return false;
  ossl::UniquePtr<BIO> mem(BIO_new(BIO_s_mem()));
  if (!mem) return false;
  if (i2d_PKCS12_bio(mem.get(), p12.get()) != 1) return false;
  p12.reset();
  writeBuffer(mem.get(), out);
  return true;
}

}  // namespace PDF_Sealmark
