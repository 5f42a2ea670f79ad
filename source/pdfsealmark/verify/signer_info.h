// Internal: the certificates of a PKCS#7 signed-data object as PDFCert.
#ifndef PDFSEALMARK_VERIFY_SIGNER_INFO_H
#define PDFSEALMARK_VERIFY_SIGNER_INFO_H

#include <openssl/pkcs7.h>

#include <vector>

#include "pdfsealmark/PDFCert.h"

namespace PDF_Sealmark {

// Appends a PDFCert (an X509_dup copy) for every certificate of the object,
// once per signer info: version 3 certificates first, then the older ones,
// each group in stored order.  certs is not emptied and duplicates stay.
// False for a null object or one without signer infos.
bool collectCerts(PKCS7* p7, std::vector<PDFCert>& certs);

// The certificates field of a signed (or signed-and-enveloped) data object,
// borrowed; null for any other object.
STACK_OF(X509) * signedDataCertificates(PKCS7* p7);

}  // namespace PDF_Sealmark

#endif
