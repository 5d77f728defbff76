// The one way the system splits a path at its last "/", shared by the
// library, the host stand-ins and the tools, so that a root path ("/a"), a
// bare name ("a") and a folder path ("a/") split alike everywhere.
//
// A pure function; safe on any thread.
#pragma once

#include <string>

namespace quillstone {
namespace utilities {

// Sets *folder to the text before the last "/" and *base to the text behind
// it; either may be null. Without a "/" the folder is empty, the base is the
// whole text, and the result is false.
inline bool SplitPath(const std::string& path, std::string* folder, std::string* base) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    if (folder) folder->clear();
    if (base) *base = path;
    return false;
  }
  if (folder) *folder = path.substr(0, slash);
  if (base) *base = path.substr(slash + 1);
  return true;
}

}  // namespace utilities
}  // namespace quillstone
