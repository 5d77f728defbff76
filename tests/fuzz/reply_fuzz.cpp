// The JSON replies other than the listing: the account reply, the token
// reply of a log-in, and error bodies as every status maps them to a result
// code.
#include <json/json.h>

#include <vector>

#include "dropboxprotocol.h"
#include "fuzz_support.h"

using quillstone::dropbox::DropboxProtocol;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_fuzz::FuzzRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DropboxProtocol* protocol = new DropboxProtocol;
  std::vector<char> body(data, data + size);
  (void)protocol->ParseAccountInfo(body);
  try {
    // The token reply is read field by field whatever its status.
    const Json::Value root = quillstone::dropbox::ParseJsonBody(body);
    (void)quillstone::dropbox::JsonValueToString(root["access_token"]);
    (void)quillstone::dropbox::JsonValueToString(root["account_id"]);
  } catch (const Json::Exception&) {
    // JSON that is no object: the log-in worker logs it and ends with 70.
  }
  for (long status : {200L, 400L, 401L, 409L, 429L, 500L}) {
    try {
      int code = protocol->processResponseCode(status, body);
      if (code < 0 || code > DropboxProtocol::kRestrictedContent) __builtin_trap();
    } catch (const Json::Exception&) {
      // A 409 body of the wrong shape: the worker ends with sync error 7.
    }
  }
  return 0;
}
