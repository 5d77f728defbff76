// The reply to an upload chunk, read for its session id, and the final reply,
// read as the uploaded file's record.
#include <json/json.h>

#include <string>
#include <vector>

#include "dropboxprotocol.h"
#include "fuzz_support.h"
#include "json_parser_utils.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;
using quillstone::utilities::JsonParser;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_fuzz::FuzzRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DropboxProtocol* protocol = new DropboxProtocol;
  std::vector<char> body(data, data + size);
  JsonParser parser;
  if (parser.Init(body) == 0) {
    if (!parser.HasRoot()) __builtin_trap();
    (void)parser.GetString("session_id");
    while (parser.EnterObject("error")) (void)parser.GetString(".tag");
    parser.LeaveObject();
    parser.LeaveObject();
    (void)parser.GetString("correct_offset");
  }
  try {
    delete protocol->parseMetadataEntry(body);
  } catch (const Json::Exception&) {
    // A member of the wrong type: the upload counts as failed.
  }
  return 0;
}
