// Contract: any list of (identifier, value) pairs may be made into the
// subject of a generated certificate.  The subject-building step runs alone,
// without the key generation around it, so one input costs microseconds.
// Input: one pair per line, "oid=value" (split at the first "=").  Each pair
// whose identifier OpenSSL knows in dotted form gives exactly one entry, in
// order, of the string type the lead-byte rule picks; a UTF8String holds
// valid UTF-8 and the other types the value's bytes up to its first zero
// byte.  The name encodes as DER.
#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"

namespace ossl = PDF_Sealmark::ossl;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> oids, values;
  for (std::size_t at = 0; at <= input.size();) {
    std::size_t end = input.find('\n', at);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(at, end - at);
    const std::size_t eq = line.find('=');
    oids.push_back(line.substr(0, eq));
    values.push_back(eq == std::string::npos ? std::string() : line.substr(eq + 1));
    at = end + 1;
  }
  ossl::UniquePtr<X509_NAME> name = PDF_Sealmark::generatedSubject(oids, values);
  if (!name) std::abort();
  int entry = 0;
  for (std::size_t i = 0; i < oids.size(); ++i) {
    ossl::UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(oids[i].c_str(), 1));
    if (OBJ_obj2nid(object.get()) == NID_undef) continue;
    const X509_NAME_ENTRY* made = X509_NAME_get_entry(name.get(), entry++);
    if (made == nullptr || OBJ_cmp(X509_NAME_ENTRY_get_object(made), object.get()) != 0) std::abort();
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(made);
    const int type = PDF_Sealmark::nameEntryStringType(values[i], oids[i]);
    if (ASN1_STRING_type(value) != type) std::abort();
    if (type == V_ASN1_UTF8STRING) {
      unsigned char* utf8 = nullptr;
      // Decoding a UTF8String as UTF-8 fails on malformed sequences.
      if (ASN1_STRING_to_UTF8(&utf8, value) < 0) std::abort();
      OPENSSL_free(utf8);
    } else {
      const std::string stored(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                               static_cast<std::size_t>(ASN1_STRING_length(value)));
      if (stored != values[i].c_str()) std::abort();
    }
  }
  if (entry != X509_NAME_entry_count(name.get()) || i2d_X509_NAME(name.get(), nullptr) <= 0) std::abort();
  return 0;
}
