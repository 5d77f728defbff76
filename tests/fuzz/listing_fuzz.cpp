// The listing reply, as any body the service or the path to it might give.
#include <json/json.h>

#include <vector>

#include "dropboxprotocol.h"
#include "fuzz_support.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_fuzz::FuzzRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One object for all inputs, as in a run: each page frees the last one's.
  static DropboxProtocol* protocol = new DropboxProtocol;
  std::vector<char> body(data, data + size);
  try {
    protocol->ParseDelta(body);
  } catch (const Json::Exception&) {
    // A field of the wrong type: uncaught in the library, the worker ends
    // with sync error 7.
    return 0;
  }
  for (FileMetadata* entry : protocol->entries_) {
    if (entry->is_folder && entry->is_deleted) __builtin_trap();
  }
  return 0;
}
