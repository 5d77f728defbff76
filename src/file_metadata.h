// One entry of the service's folder listing, or the reply to an upload.
//
// A plain record; whoever allocates it owns it. Texts are UTF-8 as the
// service sent them; `path` and `md5` are never parsed but set by the sync
// engine from the local tree.
#pragma once

#include <stdint.h>

#include <string>

namespace quillstone {
namespace dropbox {

struct FileMetadata {
  std::string name;             // last path element, display case
  std::string id;               // the service's id; keys the item's progress record
  std::string client_modified;  // kept as received, never parsed
  std::string server_modified;  // kept as received, never parsed
  std::string rev;              // compared for equality only
  uint64_t size = 0;            // 0 for folders and deletions
  std::string path;             // relative to the sync folder, local case, leading "/"
  std::string path_lower;
  std::string path_display;
  bool is_folder = false;
  bool is_deleted = false;
  std::string md5;  // content hash of the local file
};

}  // namespace dropbox
}  // namespace quillstone
