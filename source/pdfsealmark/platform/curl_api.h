// Internal: libcurl, opened the first time a URL is fetched rather than
// linked.  Linking it made every process load it and its thirty-odd
// dependencies (TLS, Kerberos, LDAP, SSH, IDN...), which was a third of the
// tool's start-up, though only the network operations need it.
#ifndef PDFSEALMARK_PLATFORM_CURL_API_H
#define PDFSEALMARK_PLATFORM_CURL_API_H

#include <curl/curl.h>

#include <memory>

namespace PDF_Sealmark {
namespace platform {

// The entry points we call, by their names without "curl_".
struct CurlApi {
  CURL* (*easy_init)();
  void (*easy_cleanup)(CURL*);
  CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
  CURLcode (*easy_perform)(CURL*);
  CURLM* (*multi_init)();
  CURLMcode (*multi_cleanup)(CURLM*);
  CURLMcode (*multi_add_handle)(CURLM*, CURL*);
  CURLMcode (*multi_remove_handle)(CURLM*, CURL*);
  CURLMcode (*multi_perform)(CURLM*, int*);
  CURLMsg* (*multi_info_read)(CURLM*, int*);
  CURLMcode (*multi_poll)(CURLM*, struct curl_waitfd[], unsigned int, int, int*);
  curl_slist* (*slist_append)(curl_slist*, const char*);
  void (*slist_free_all)(curl_slist*);
  CURLU* (*url)();
  void (*url_cleanup)(CURLU*);
  CURLUcode (*url_set)(CURLU*, CURLUPart, const char*, unsigned int);
};

// libcurl.so.4, loaded and globally initialised once, from any thread.  When
// it can't be loaded, or lacks one of the entry points, every entry fails:
// the constructors return null and the others an error code, so a fetch
// fails as it would for a host that can't be reached.
const CurlApi& curl();

struct CurlEasyDeleter {
  void operator()(CURL* p) const { curl().easy_cleanup(p); }
};
struct CurlMultiDeleter {
  void operator()(CURLM* p) const { curl().multi_cleanup(p); }
};
struct CurlSlistDeleter {
  void operator()(curl_slist* p) const { curl().slist_free_all(p); }
};
struct CurlUrlDeleter {
  void operator()(CURLU* p) const { curl().url_cleanup(p); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlSlist = std::unique_ptr<curl_slist, CurlSlistDeleter>;
using CurlUrl = std::unique_ptr<CURLU, CurlUrlDeleter>;

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
