// sealmark_mkpdf OUTDIR: writes a set of sample signed PDFs (fuzz seeds,
// manual checks, committed samples).
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "pdf_builder.h"

using namespace sealtest;

namespace {

SignatureOptions withDigest(Digest d) {
  SignatureOptions o;
  o.digest = d;
  return o;
}

std::vector<std::pair<std::string, std::function<PdfBuilder()>>> samples() {
  const Pki& pki = defaultPki();
  std::vector<std::pair<std::string, std::function<PdfBuilder()>>> s;
  auto add = [&](std::string name, std::function<PdfBuilder()> f) {
    s.emplace_back(std::move(name), std::move(f));
  };
  add("detached-sha256.pdf", [] { return std::move(PdfBuilder().sign(withDigest(Digest::Sha256))); });
  add("detached-sha1.pdf", [] { return std::move(PdfBuilder().sign(withDigest(Digest::Sha1))); });
  add("detached-sha512.pdf", [] { return std::move(PdfBuilder().sign(withDigest(Digest::Sha512))); });
  add("embedded-sha1.pdf", [] {
    SignatureOptions o;
    o.layout = Layout::EmbeddedSha1;
    o.digest = Digest::Sha1;
    return std::move(PdfBuilder().sign(o));
  });
  add("tampered.pdf", [] { return std::move(PdfBuilder().sign().tamperPageContent()); });
  add("wrong-key.pdf", [&pki] {
    SignatureOptions o;
    o.signer.signingKey = pki.unrelated.key.get();
    return std::move(PdfBuilder().sign(o));
  });
  add("no-signer-cert.pdf", [&pki] {
    SignatureOptions o;
    o.certificates = std::vector<const X509*>{pki.ca.cert.get()};
    return std::move(PdfBuilder().sign(o));
  });
  add("not-pkcs7.pdf", [] {
    SignatureOptions o;
    const std::string text = "this is not a PKCS#7 blob";
    o.rawContents = Bytes(text.begin(), text.end());
    return std::move(PdfBuilder().sign(o));
  });
  add("two-signers.pdf", [&pki] {
    SignatureOptions o;
    o.secondSigner = Signer{&pki.secondSigner, nullptr, std::nullopt};
    return std::move(PdfBuilder().sign(o));
  });
  add("two-signatures.pdf", [] {
    SignatureOptions second;
    second.name = "Signature2";
    return std::move(PdfBuilder().sign().sign(second));
  });
  add("updated-after-signing.pdf", [] {
    return std::move(PdfBuilder().sign().update({UpdateOptions::Kind::AddAnnotation, 0}));
  });
  add("unsigned-field.pdf", [] {
    FieldOptions f;
    f.name = "Unsigned1";
    return std::move(PdfBuilder().unsignedField(f).sign());
  });
  add("no-page-ref.pdf", [] {
    SignatureOptions o;
    o.pageRef = false;
    return std::move(PdfBuilder().pages(2).sign(o));
  });
  add("kids-widget.pdf", [] {
    SignatureOptions o;
    o.separateWidget = true;
    return std::move(PdfBuilder().sign(o));
  });
  add("nested-field.pdf", [] {
    SignatureOptions o;
    o.name = "Parent.Child";
    return std::move(PdfBuilder().sign(o));
  });
  add("pfu-filter.pdf", [] {
    SignatureOptions o;
    o.filter = "PFUP.TimeStamp";
    return std::move(PdfBuilder().sign(o));
  });
  add("timestamp-pkcs7.pdf", [&pki] {
    const std::string text = "timestamped content";
    SignatureOptions o;
    o.signer.timestampToken = pkcs7SignedData(Bytes(text.begin(), text.end()), pki.secondSigner);
    return std::move(PdfBuilder().sign(o));
  });
  add("timestamp-other.pdf", [] {
    SignatureOptions o;
    o.signer.timestampToken = nonPkcs7Sequence();
    return std::move(PdfBuilder().sign(o));
  });
  add("encrypted-empty-user.pdf", [] {
    return std::move(PdfBuilder().encrypt("", "owner").sign());
  });
  add("encrypted-user-pw.pdf", [] {
    return std::move(PdfBuilder().encrypt("user", "owner").sign());
  });
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTDIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  int failures = 0;
  for (auto& [name, make] : samples()) {
    try {
      PdfBuilder b = make();
      b.writeFile(dir + "/" + name);
      std::printf("%s\n", name.c_str());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
