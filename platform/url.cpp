#include "url.h"

namespace quillstone {
namespace utilities {

Url::Url(const std::string& text) {
  std::string rest = text;
  const size_t hash = rest.find('#');
  if (hash != std::string::npos) {
    fragment_ = rest.substr(hash + 1);
    rest.erase(hash);
  }
  const size_t question = rest.find('?');
  if (question != std::string::npos) {
    query_ = rest.substr(question + 1);
    rest.erase(question);
  }
  const size_t scheme_end = rest.find("://");
  if (scheme_end != std::string::npos) {
    scheme_ = rest.substr(0, scheme_end);
    rest.erase(0, scheme_end + 3);
    const size_t slash = rest.find('/');
    host_ = rest.substr(0, slash);
    rest.erase(0, slash == std::string::npos ? rest.size() : slash);
  }
  path_ = rest;
}

std::map<std::string, std::string> Url::ParseQuery(const std::string& query) {
  std::map<std::string, std::string> params;
  std::map<std::string, int> seen;
  size_t start = 0;
  while (start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    if (!pair.empty()) {
      const size_t equals = pair.find('=');
      const std::string name = pair.substr(0, equals);
      if (++seen[name] == 1) {
        params[name] = equals == std::string::npos ? "" : pair.substr(equals + 1);
      } else {
        params.erase(name);
      }
    }
    start = end + 1;
  }
  return params;
}

std::string RedactUrl(const std::string& url) {
  static const char* const kSecretNames[] = {"code", "access_token", "refresh_token", "oauth_token",
                                             "token"};
  std::string out;
  size_t start = url.find('?');
  if (start == std::string::npos) return url;
  const size_t hash = url.find('#');
  const size_t end_of_query = hash == std::string::npos || hash < start ? url.size() : hash;
  out = url.substr(0, start + 1);
  size_t pos = start + 1;
  while (pos <= end_of_query) {
    size_t end = url.find('&', pos);
    if (end == std::string::npos || end > end_of_query) end = end_of_query;
    const std::string pair = url.substr(pos, end - pos);
    const size_t equals = pair.find('=');
    bool secret = false;
    for (const char* name : kSecretNames) secret = secret || pair.substr(0, equals) == name;
    out += secret && equals != std::string::npos ? pair.substr(0, equals + 1) + "<hidden>" : pair;
    if (end < end_of_query) out += '&';
    pos = end + 1;
  }
  // A fragment can carry a token too (the implicit grant): never shown.
  if (end_of_query < url.size()) out += "#<hidden>";
  return out;
}

}  // namespace utilities
}  // namespace quillstone
