// The listing reply, as any body the service or the path to it might give.
// The page is read entry by entry where its shape allows; this target holds
// that reading to the plain one, a single tree of the whole body, on every
// input: the same members, and the same exception at the same point.
#include <json/json.h>

#include <string>
#include <vector>

#include "dropboxprotocol.h"
#include "fuzz_support.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::JsonValueToString;
using quillstone::dropbox::ParseJsonBody;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_fuzz::FuzzRoot();
  return 0;
}

namespace {

// The whole-tree reading, step by step as the members are to change.
void ParseWhole(DropboxProtocol* protocol, const std::vector<char>& data) {
  const Json::Value parsed = ParseJsonBody(data);
  static const Json::Value kNull;
  const Json::Value& root = parsed.isObject() ? parsed : kNull;
  protocol->cursor_ = JsonValueToString(root["cursor"]);
  protocol->has_more_ = root["has_more"].asBool();
  for (FileMetadata* entry : protocol->entries_) delete entry;
  protocol->entries_.clear();
  const Json::Value& entries = root["entries"];
  if (!entries.isArray()) return;
  for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
    protocol->entries_.push_back(protocol->parseMetadataEntry(entries[i]));
  }
}

// The exception's text, or "" when there was none.
template <typename Parse>
std::string Outcome(Parse parse) {
  try {
    parse();
  } catch (const Json::Exception& e) {
    // A field of the wrong type: uncaught in the library, the worker ends
    // with sync error 7.
    return std::string("exception: ") + e.what();
  }
  return std::string();
}

std::string Describe(const DropboxProtocol& protocol) {
  std::string text = protocol.cursor_ + (protocol.has_more_ ? "|more" : "|last");
  for (const FileMetadata* e : protocol.entries_) {
    for (const std::string* field :
         {&e->name, &e->id, &e->client_modified, &e->server_modified, &e->rev, &e->path,
          &e->path_lower, &e->path_display, &e->md5}) {
      text += '\x1f' + *field;
    }
    text +=
        '\x1f' + std::to_string(e->size) + (e->is_folder ? "F" : "f") + (e->is_deleted ? "D" : "d");
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One object of each for all inputs, as in a run: each page frees the last
  // one's, and a page that raises leaves what it leaves for the next input.
  static DropboxProtocol* protocol = new DropboxProtocol;
  static DropboxProtocol* reference = new DropboxProtocol;
  const std::vector<char> body(data, data + size);
  const std::string outcome = Outcome([&] { protocol->ParseDelta(body); });
  const std::string expected = Outcome([&] { ParseWhole(reference, body); });
  if (outcome != expected || Describe(*protocol) != Describe(*reference)) __builtin_trap();
  return 0;
}
