// Test-only writer of signed PDF files.
//
// This is deliberately independent of the library under test: it writes
// every byte of the PDF itself (and uses OpenSSL for the PKCS#7 blobs and
// libqpdf only to encrypt a base document), so tests can compare the
// library's answers against files whose structure is known exactly.
#pragma once

#include <openssl/types.h>

#include <array>
#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealtest {

using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------------------
// OpenSSL ownership. Every object has exactly one owner.
struct EvpPkeyDeleter {
  void operator()(EVP_PKEY* p) const;
};
struct X509Deleter {
  void operator()(X509* p) const;
};
using KeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyDeleter>;
using CertPtr = std::unique_ptr<X509, X509Deleter>;

// ---------------------------------------------------------------------------
// Test PKI.
enum class KeyKind { Rsa2048, EcP256 };

struct Identity {
  KeyPtr key;
  CertPtr cert;

  Bytes certDer() const;
  std::string certPem() const;
  Bytes keyDer() const;       // PKCS#8 DER
  std::string keyPem() const; // PKCS#8 PEM
};

struct CertOptions {
  std::string commonName = "Sealmark Test Signer";
  long serial = 2;
  KeyKind keyKind = KeyKind::Rsa2048;
  std::optional<std::time_t> notBefore; // default: now - 1 day
  std::optional<std::time_t> notAfter;  // default: now + 10 years
};

KeyPtr generateKey(KeyKind kind);
Identity makeCa(const CertOptions& options);
Identity makeSigner(const Identity& issuer, const CertOptions& options);

Bytes certDer(const X509* cert);
std::string certPem(const X509* cert);

struct Pki {
  Identity ca;           // self-signed root
  Identity signer;       // issued by ca
  Identity secondSigner; // issued by ca, different key and name
  Identity unrelated;    // self-signed, shares nothing with ca/signer
};
// RSA-2048 everywhere; generated once per process.
const Pki& defaultPki();
Pki makePki(KeyKind caKind, KeyKind signerKind);

// DER SEQUENCE that is not a PKCS#7 ContentInfo (for timestamp-token tests).
Bytes nonPkcs7Sequence();
// A real, self-contained PKCS#7 SignedData (content embedded) over |content|.
Bytes pkcs7SignedData(const Bytes& content, const Identity& who);

// ---------------------------------------------------------------------------
// Document description.
enum class Digest { Sha1, Sha256, Sha384, Sha512 };
enum class Layout {
  Detached,    // PKCS#7 detached over the byte-range bytes
  EmbeddedSha1 // PKCS#7 content = digest of the byte-range bytes
};
enum class Eol { CrLf, Lf, None };
enum class Encryption { Aes128R4, Aes256R6 };

struct FieldOptions {
  FieldOptions();  // out of line: keeps GCC's -O3 uninitialized analysis quiet
  std::string name = "Signature1"; // "A.B" creates non-terminal parent "A"
  int page = 0;
  bool pageRef = true;         // write /P on the widget
  bool inAnnots = true;        // list the widget in the page's /Annots
  bool separateWidget = false; // field has /Kids [widget] instead of merged
  bool directValue = false;    // /V << ... >> instead of an indirect ref
};

struct Signer {
  const Identity* identity = nullptr;   // default: defaultPki().signer
  const EVP_PKEY* signingKey = nullptr; // sign with this key instead (wrong key)
  std::optional<Bytes> timestampToken;  // unsigned attr id-smime-aa-timeStampToken
};

struct SignatureOptions : FieldOptions {
  SignatureOptions();
  std::string filter = "Adobe.PPKLite";
  std::string subFilter;                 // empty: chosen from layout
  std::string signingTime = "D:20240315120000Z"; // /M; empty omits it
  Digest digest = Digest::Sha256;
  Layout layout = Layout::Detached;
  std::optional<Digest> embeddedDigest;  // EmbeddedSha1: hash with this instead
  std::optional<Bytes> embeddedContent;  // EmbeddedSha1: use these bytes instead
  bool signedAttributes = true;
  Signer signer;
  // Note: SignerInfos are a DER SET, so their encoded order is by encoding,
  // not by this field order; find them by issuer and serial.
  std::optional<Signer> secondSigner;
  bool secondSignerOverOtherBytes = false;
  // Exact PKCS#7 certificates set, in order. nullopt: each signer's cert.
  std::optional<std::vector<const X509*>> certificates;
  std::optional<Bytes> rawContents;      // write these instead of a signature
  std::size_t contentsCapacity = 8192;   // bytes; the hex string is twice this
  std::optional<std::string> byteRangeText; // verbatim value of /ByteRange
  bool omitByteRange = false;            // no /ByteRange key (space still kept)
  bool incremental = false;              // first signature: put it in an update
  // Written verbatim into the signature dictionary (e.g. a /Reference
  // array).  "{0}", "{1}", ... stand for references to extraObjects.
  std::string extraEntries;
  std::vector<std::string> extraObjects;  // bodies of further indirect objects
};

struct UpdateOptions {
  enum class Kind { AddAnnotation, RewriteInfo } kind = Kind::AddAnnotation;
  int page = 0;
};

// Facts about what build() wrote, for assertions.
struct SignatureFacts {
  std::string fieldName;
  int fieldObject = 0;      // terminal field object number
  int sigObject = 0;        // 0 when /V is a direct dictionary
  std::size_t revision = 0; // index into revisionEnds()
  std::array<long long, 4> byteRange{}; // the real signed range
  std::size_t contentsOffset = 0;       // offset of '<'
  std::size_t contentsLength = 0;       // including '<' and '>'
  Bytes cms;                            // what went into /Contents (unpadded)
};

class PdfBuilder {
 public:
  PdfBuilder();
  ~PdfBuilder();
  PdfBuilder(PdfBuilder&&) noexcept;
  PdfBuilder& operator=(PdfBuilder&&) noexcept;

  PdfBuilder& pages(int n);
  PdfBuilder& padding(std::size_t bytes);
  // Fields and signatures are processed in call order. The base revision
  // holds everything up to and including the first sign(); every later
  // sign()/update() appends one incremental update; fields added after the
  // base go into the next update.
  PdfBuilder& unsignedField(const FieldOptions& options);
  PdfBuilder& sign(const SignatureOptions& options = {});
  PdfBuilder& update(const UpdateOptions& options = {});
  // Encrypt the unsigned base with libqpdf, then sign in an update.
  // Supports at most one (indirect /V) signature and no update().
  PdfBuilder& encrypt(std::string userPassword, std::string ownerPassword,
                      Encryption kind = Encryption::Aes128R4);
  PdfBuilder& finalEol(Eol eol);
  PdfBuilder& tamperAt(std::size_t offset);  // flip a bit after signing
  PdfBuilder& tamperPageContent();           // flip a bit in page 0's text

  Bytes build();                            // rebuilds from scratch each call
  void writeFile(const std::string& path);  // build() + writeBytes()

  // Valid after build().
  const std::vector<SignatureFacts>& signatures() const;
  const std::vector<std::size_t>& revisionEnds() const;
  const std::vector<int>& pageObjects() const;
  std::size_t pageContentOffset() const; // page 0 text byte (unencrypted only)

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

std::string digestName(Digest d);
void writeBytes(const std::string& path, const Bytes& data);

}  // namespace sealtest
