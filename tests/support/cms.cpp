// PKCS#7 SignedData blobs for /Contents, with the knobs negative tests need.
#include <openssl/err.h>
#include <openssl/objects.h>

#include "ossl_ptr.h"

namespace sealtest::detail {

const EVP_MD* mdFor(Digest d) {
  switch (d) {
    case Digest::Sha1: return EVP_sha1();
    case Digest::Sha256: return EVP_sha256();
    case Digest::Sha384: return EVP_sha384();
    case Digest::Sha512: return EVP_sha512();
  }
  throw std::invalid_argument("sealtest: unknown digest");
}

Bytes digestOf(Digest d, const std::vector<ByteSpan>& pieces) {
  MdCtxPtr ctx(check(EVP_MD_CTX_new(), "EVP_MD_CTX_new"));
  check(EVP_DigestInit_ex(ctx.get(), mdFor(d), nullptr), "EVP_DigestInit_ex");
  for (const ByteSpan& p : pieces)
    check(EVP_DigestUpdate(ctx.get(), p.data, p.size), "EVP_DigestUpdate");
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned int n = 0;
  check(EVP_DigestFinal_ex(ctx.get(), out.data(), &n), "EVP_DigestFinal_ex");
  out.resize(n);
  return out;
}

namespace {

const Identity& identityOf(const Signer& s) {
  return s.identity ? *s.identity : defaultPki().signer;
}

Pkcs7Ptr newSignedData(int flags, bool detached) {
  // PKCS7_PARTIAL with no signer yields an empty SignedData of type data
  // that we fill in step by step.
  Pkcs7Ptr p7(check(PKCS7_sign(nullptr, nullptr, nullptr, nullptr,
                               flags | PKCS7_PARTIAL),
                    "PKCS7_sign(partial)"));
  if (detached) check(static_cast<int>(PKCS7_set_detached(p7.get(), 1)), "PKCS7_set_detached");
  return p7;
}

void addSigner(PKCS7* p7, const Signer& s, const EVP_MD* md, int flags) {
  const Identity& id = identityOf(s);
  if (s.signingKey == nullptr) {
    check(PKCS7_sign_add_signer(p7, id.cert.get(), id.key.get(), md, flags),
          "PKCS7_sign_add_signer");
    return;
  }
  // PKCS7_sign_add_signer refuses a key that does not match the
  // certificate, which is exactly what a wrong-key test needs, so the signer
  // info is assembled by hand: it names the certificate (issuer+serial) but
  // the signature value comes from the other key.
  EVP_PKEY* key = const_cast<EVP_PKEY*>(s.signingKey);
  PKCS7_SIGNER_INFO* si = check(PKCS7_add_signature(p7, id.cert.get(), key, md),
                                "PKCS7_add_signature");
  if (!(flags & PKCS7_NOATTR))
    check(PKCS7_add_attrib_content_type(si, nullptr),
          "PKCS7_add_attrib_content_type");
}

void feed(PKCS7* p7, const std::vector<ByteSpan>& pieces) {
  // Same steps as PKCS7_final, but over several pieces so the (possibly
  // 100 MB) byte range is never copied into one buffer.
  BioPtr bio(check(PKCS7_dataInit(p7, nullptr), "PKCS7_dataInit"));
  for (const ByteSpan& p : pieces) {
    std::size_t done = 0;
    while (done < p.size) {
      int chunk = static_cast<int>(std::min<std::size_t>(p.size - done, 1u << 30));
      check(BIO_write(bio.get(), p.data + done, chunk) == chunk ? 1 : 0,
            "BIO_write");
      done += static_cast<std::size_t>(chunk);
    }
  }
  (void)BIO_flush(bio.get());
  check(PKCS7_dataFinal(p7, bio.get()), "PKCS7_dataFinal");
}

void addTimestamp(PKCS7* p7, int signerIndex, const Bytes& der) {
  STACK_OF(PKCS7_SIGNER_INFO)* sis = PKCS7_get_signer_info(p7);
  PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(sis, signerIndex);
  if (si == nullptr) throw std::logic_error("sealtest: no such signer info");
  // For V_ASN1_SEQUENCE the string holds the complete DER encoding.
  Asn1StringPtr value(check(ASN1_STRING_type_new(V_ASN1_SEQUENCE), "ASN1_STRING"));
  check(ASN1_STRING_set(value.get(), der.data(), static_cast<int>(der.size())),
        "ASN1_STRING_set");
  check(PKCS7_add_attribute(si, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE,
                            value.get()),
        "PKCS7_add_attribute");
  (void)value.release();  // now owned by the attribute
}

}  // namespace

Bytes makeCms(const SignatureOptions& o, const std::vector<ByteSpan>& signedBytes) {
  const bool detached = o.layout == Layout::Detached;
  int flags = PKCS7_BINARY | PKCS7_NOSMIMECAP | PKCS7_NOCERTS;
  if (!o.signedAttributes) flags |= PKCS7_NOATTR;
  const EVP_MD* md = mdFor(o.digest);

  Bytes embedded;
  std::vector<ByteSpan> content = signedBytes;
  if (!detached) {
    embedded = o.embeddedContent
                   ? *o.embeddedContent
                   : digestOf(o.embeddedDigest.value_or(Digest::Sha1), signedBytes);
    content = {ByteSpan{embedded.data(), embedded.size()}};
  }

  Pkcs7Ptr p7 = newSignedData(flags, detached);
  addSigner(p7.get(), o.signer, md, flags);
  const bool second = o.secondSigner.has_value();
  if (second && !o.secondSignerOverOtherBytes)
    addSigner(p7.get(), *o.secondSigner, md, flags);
  feed(p7.get(), content);

  if (second && o.secondSignerOverOtherBytes) {
    // Sign unrelated bytes in a scratch SignedData and graft its signer info
    // on: structurally perfect, cryptographically wrong for this document.
    static const unsigned char kOther[] = "these are not the signed bytes";
    Pkcs7Ptr other = newSignedData(flags, detached);
    addSigner(other.get(), *o.secondSigner, md, flags);
    feed(other.get(), {ByteSpan{kOther, sizeof kOther - 1}});
    // Detach it from the scratch structure: we own it until p7 takes it.
    SignerInfoPtr moved(check(
        sk_PKCS7_SIGNER_INFO_delete(PKCS7_get_signer_info(other.get()), 0),
        "signer info"));
    check(PKCS7_add_signer(p7.get(), moved.get()), "PKCS7_add_signer");
    (void)moved.release();  // owned by p7 now
  }

  // Unsigned attributes are outside the signature, so adding them after
  // finalisation does not invalidate anything.
  if (o.signer.timestampToken) addTimestamp(p7.get(), 0, *o.signer.timestampToken);
  if (second && o.secondSigner->timestampToken)
    addTimestamp(p7.get(), 1, *o.secondSigner->timestampToken);

  std::vector<const X509*> certs;
  if (o.certificates) {
    certs = *o.certificates;
  } else {
    certs.push_back(identityOf(o.signer).cert.get());
    if (second) certs.push_back(identityOf(*o.secondSigner).cert.get());
  }
  for (const X509* c : certs)  // PKCS7_add_certificate takes its own reference
    check(PKCS7_add_certificate(p7.get(), const_cast<X509*>(c)),
          "PKCS7_add_certificate");

  unsigned char* der = nullptr;
  int n = i2d_PKCS7(p7.get(), &der);
  if (n <= 0) throwOpenSsl("i2d_PKCS7");
  Bytes out(der, der + n);
  OPENSSL_free(der);
  return out;
}

}  // namespace sealtest::detail
