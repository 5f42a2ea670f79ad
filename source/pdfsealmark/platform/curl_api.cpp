#include "pdfsealmark/platform/curl_api.h"

#include <dlfcn.h>

namespace PDF_Sealmark {
namespace platform {

namespace {

// What every entry does when libcurl is missing.
CURL* noEasy() { return nullptr; }
void noEasyCleanup(CURL*) {}
CURLcode noSetopt(CURL*, CURLoption, ...) { return CURLE_FAILED_INIT; }
CURLcode noPerform(CURL*) { return CURLE_FAILED_INIT; }
CURLM* noMulti() { return nullptr; }
CURLMcode noMultiCleanup(CURLM*) { return CURLM_BAD_HANDLE; }
CURLMcode noMultiHandle(CURLM*, CURL*) { return CURLM_BAD_HANDLE; }
CURLMcode noMultiPerform(CURLM*, int*) { return CURLM_BAD_HANDLE; }
CURLMsg* noInfoRead(CURLM*, int*) { return nullptr; }
CURLMcode noPoll(CURLM*, struct curl_waitfd[], unsigned int, int, int*) { return CURLM_BAD_HANDLE; }
curl_slist* noSlistAppend(curl_slist*, const char*) { return nullptr; }
void noSlistFree(curl_slist*) {}
CURLU* noUrl() { return nullptr; }
void noUrlCleanup(CURLU*) {}
CURLUcode noUrlSet(CURLU*, CURLUPart, const char*, unsigned int) { return CURLUE_OUT_OF_MEMORY; }

constexpr CurlApi kMissing = {noEasy,         noEasyCleanup,  noSetopt,       noPerform,   noMulti,
                              noMultiCleanup, noMultiHandle,  noMultiHandle,  noMultiPerform,
                              noInfoRead,     noPoll,         noSlistAppend,  noSlistFree,
                              noUrl,          noUrlCleanup,   noUrlSet};

template <class F>
bool bind(void* library, const char* name, F& entry) {
  void* symbol = ::dlsym(library, name);
  if (!symbol) return false;
  entry = reinterpret_cast<F>(symbol);
  return true;
}

CurlApi load() {
  // Never closed: handles of it may live until the process ends.
  void* library = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
  if (!library) return kMissing;
  CurlApi api = kMissing;
  CURLcode (*globalInit)(long) = nullptr;
  const bool complete =
      bind(library, "curl_global_init", globalInit) && bind(library, "curl_easy_init", api.easy_init) &&
      bind(library, "curl_easy_cleanup", api.easy_cleanup) && bind(library, "curl_easy_setopt", api.easy_setopt) &&
      bind(library, "curl_easy_perform", api.easy_perform) && bind(library, "curl_multi_init", api.multi_init) &&
      bind(library, "curl_multi_cleanup", api.multi_cleanup) &&
      bind(library, "curl_multi_add_handle", api.multi_add_handle) &&
      bind(library, "curl_multi_remove_handle", api.multi_remove_handle) &&
      bind(library, "curl_multi_perform", api.multi_perform) &&
      bind(library, "curl_multi_info_read", api.multi_info_read) &&
      bind(library, "curl_multi_poll", api.multi_poll) && bind(library, "curl_slist_append", api.slist_append) &&
      bind(library, "curl_slist_free_all", api.slist_free_all) && bind(library, "curl_url", api.url) &&
      bind(library, "curl_url_cleanup", api.url_cleanup) && bind(library, "curl_url_set", api.url_set);
  if (!complete || globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) return kMissing;
  return api;
}

}  // namespace

const CurlApi& curl() {
  static const CurlApi api = load();
  return api;
}

}  // namespace platform
}  // namespace PDF_Sealmark
