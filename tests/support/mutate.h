// Signed PDFs for the tests, and the small edits that make odd cases of them.
//
// Files are signed by the library's own signer (PDFSigner) from the unsigned
// inputs in tests/data, with the PKI that make_pki.sh makes once per process.
// Every odd case is then one edit of that output that keeps every offset:
// a flipped byte, text overwritten by text no longer than it, or a PKCS#7
// object decoded, changed with OpenSSL and put back into its /Contents slot.
// Two files signed from the same input with options()' fixed time and slot
// size differ only in /Contents, so their signatures can be swapped.
#pragma once

#include <openssl/pkcs7.h>

#include <functional>
#include <string>

#include "pdfsealmark/PDFSigner.h"
#include "support/test_util.h"

namespace sealtest {

using SignOptions = PDF_Sealmark::PDFSigner::Options;

// The signing time every test file carries, as getSignedDate gives it.
constexpr char kSigningTime[] = "20240315120000Z";

// Path of a file of the test PKI: ca.pem, signer.key, second.p12...
std::string pki(const std::string& file);
// A certificate file (PEM), or with a password a PKCS#12 file and its key.
PDF_Sealmark::PDFCert load(const std::string& path, const char* password = nullptr);
// tests/data/NAME.
Bytes input(const std::string& name);

// Options with the fixed signing time and an 8 KiB /Contents slot, for
// `field`; a /Reason of `reasonSlot` x's leaves room to write other entries
// of the signature dictionary over it.
SignOptions options(const std::string& field = "", std::size_t reasonSlot = 0);
// `pdf` signed by PKI identity `who` ("signer", "second", "ec-signer");
// a refusal fails the test and gives an empty result.
Bytes sign(const Bytes& pdf, const SignOptions& options = sealtest::options(),
           const std::string& who = "signer");

// The last `from` in the file overwritten by `to`, padded with blanks to
// the same length; `to` must not be longer.
Bytes overwrite(Bytes pdf, const std::string& from, const std::string& to);
// "/Key value" of the last such entry, the value being a name, a number, a
// reference or a bracketed [array], (string) or <hex string>.
std::string entry(const Bytes& pdf, const std::string& key);
Bytes flip(Bytes pdf, std::size_t offset);
// The last /ByteRange replaced by "/ByteRange VALUE" (none when empty),
// written over a reason slot.
Bytes withRange(Bytes pdf, const std::string& value);

// The last /Contents decoded, padding included.
Bytes contentsOf(const Bytes& pdf);
// `der` in the last /Contents slot, padded with zeros.
Bytes withContents(Bytes pdf, const Bytes& der);
Bytes der(PKCS7* p7);
// The last signature's PKCS#7 object changed by `edit` and put back.
Bytes editPkcs7(const Bytes& pdf, const std::function<void(PKCS7*)>& edit);
// A signer info by `who` over a copy of the first one's signed attributes,
// so over the same bytes, with `who`'s certificate added.
PKCS7_SIGNER_INFO* addSigner(PKCS7* p7, const std::string& who);
// The certificate set replaced by these PEM files' certificates, in order.
void setCertificates(PKCS7* p7, const std::vector<std::string>& certFiles);

}  // namespace sealtest
