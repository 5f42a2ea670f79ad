#include "pdfsealmark/http/HttpPost.h"

#include <cctype>

#include "pdfsealmark/http/HttpConnect.h"
#include "pdfsealmark/http/HttpWinInet.h"

namespace le {

int splitUrl(const std::string& url, std::string& host, std::string& path, std::string& port) {
  std::string lower = url;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::string rest = url;
  int result = 0;
  if (lower.compare(0, 8, "https://") == 0) {
    result = 1;
    rest.erase(0, 8);
  } else if (lower.compare(0, 7, "http://") == 0) {
    rest.erase(0, 7);
  } else if (lower.find(':') != std::string::npos) {
    // Another scheme, or a port without a scheme: not ours.
    return -1;
  }
  const std::size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    path = rest.substr(slash);
    rest.erase(slash);
  }
  const std::size_t colon = rest.find(':');
  if (colon != std::string::npos) {
    port = rest.substr(colon + 1);
    host = rest.substr(0, colon);
  } else {
    host = rest;
  }
  return result;
}

bool HttpWinInetPost(const char* url, const std::string& headers, const std::vector<unsigned char>& request,
                     std::vector<unsigned char>& response) {
  if (!url) return false;
  HttpWinInet client;
  if (client.open(url) < 0) return false;
  if (client.request(request, response, headers) < 0) return false;
  client.close();
  return !response.empty();
}

bool HttpConnectPost(const char* url, const std::string& headers, const std::vector<unsigned char>& request,
                     std::vector<unsigned char>& response) {
  if (!url) return false;
  HttpConnect client;
  if (client.open(url) < 0) return false;
  if (client.request(request, response, headers) < 0) return false;
  client.reset();
  return !response.empty();
}

}  // namespace le
