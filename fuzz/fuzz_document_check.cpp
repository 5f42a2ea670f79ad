// Contract: any bytes may be checked in one pass; the worst outcome is a
// refusal or a "not intact".  Where both answer, the one-pass verdict must
// equal PDFSealmarkVerify::verify on the same field, except where the two
// deliberately differ (see tests/document_check_test.cpp): document time
// stamps, dictionaries verify leaves unsigned, the bound on hostile work,
// and signer infos whose digest the digestAlgorithms set doesn't name.
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

namespace {
bool digestSetNamesEverySigner(PKCS7* p7) {
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(p7);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos); ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    bool named = false;
    for (int j = 0; si && j < sk_X509_ALGOR_num(p7->d.sign->md_algs); ++j) {
      named = named ||
              OBJ_cmp(sk_X509_ALGOR_value(p7->d.sign->md_algs, j)->algorithm, si->digest_alg->algorithm) == 0;
    }
    if (!named) return false;
  }
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> bytes(data, data + size);
  PDF_Sealmark::PDFDocumentCheck::Result result;
  if (!PDF_Sealmark::PDFDocumentCheck::checkMemory(bytes, "", result, nullptr)) return 0;
  auto doc = PDF_Vellum::PDFDocument::openMemory(bytes, "");
  PDF_Folio::CForm form(doc.get());
  const auto fields = form.getSigFields();
  if (fields.size() != result.signatures.size()) std::abort();
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const auto& s = result.signatures[i];
    PDF_Sealmark::PDFSealmarkVerify v;
    v.parse(fields[i]);
    // The time stamp is the verifier's own answer.
    if (s.hasTimeStamp != v.getHasTimeStamp() || (s.hasTimeStamp && s.timeStampStatus != v.verifyTimeStamp()))
      std::abort();
    if (!v.getHasSigned() || s.kind != PDF_Sealmark::PDFDocumentCheck::Kind::kSignature) continue;
    if (s.problem.find("too many") != std::string::npos) continue;
    if (!PKCS7_type_is_signed(v.getImpl()->pkcs7) || !digestSetNamesEverySigner(v.getImpl()->pkcs7)) continue;
    if (v.verify() != (s.intact == 1)) std::abort();
  }
  return 0;
}
