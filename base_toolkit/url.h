// An address split into its parts, and the parameters of a query.
//
// Nothing is decoded: the parts and the parameter values are the bytes of
// the address as it stands. A value that is compared with what was sent, or
// passed on into a form body, keeps exactly the form the peer gave it.
//
// Thread safety: a Url is a plain value; the functions keep no state.
#pragma once

#include <map>
#include <string>

namespace quillstone {
namespace utilities {

class Url {
 public:
  // Splits "scheme://host/path?query#fragment"; a part that is missing is
  // empty. The fragment is never part of the query.
  explicit Url(const std::string& text);

  // Parameters of a query ("a=1&b=2"), values as they stand. A name without
  // "=" has the empty value. A name given more than once is left out: which
  // of two values was meant cannot be known, so neither is trusted.
  static std::map<std::string, std::string> ParseQuery(const std::string& query);

  std::string scheme_;
  std::string host_;  // with the port, if any
  std::string path_;
  std::string query_;  // without the "?"
  std::string fragment_;
};

// `url` with the values of parameters that carry credentials ("code" and
// the token names) replaced by "<hidden>", for log lines.
std::string RedactUrl(const std::string& url);

}  // namespace utilities
}  // namespace quillstone
