// One file as the local scan sees it or as the store lists it.
#pragma once

#include <string>

namespace quillstone {
namespace dropbox {

struct FileInfo {
  std::string name;  // base name, exact case
  std::string md5;   // content hash text of the local file; opaque
  std::string rev;   // the service's revision text
  int status = 0;    // FileMetadataManager::ItemStatus, or 0 where not read
};

}  // namespace dropbox
}  // namespace quillstone
