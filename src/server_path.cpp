#define QS_SOURCE_NAME "src/server_path"

#include "server_path.h"

#include <sys/stat.h>

#include <atomic>
#include <vector>

#include "file_metadata.h"
#include "qs_log.h"

namespace quillstone {
namespace dropbox {

namespace {

std::atomic<int> g_refusals(0);

bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("\\\0/", 3)) == std::string::npos;
}

// The components of a store path, or false when it has no leading "/".
bool SplitStorePath(const std::string& path, std::vector<std::string>* parts) {
  if (path.empty() || path[0] != '/') return false;
  size_t start = 1;
  for (;;) {
    const size_t slash = path.find('/', start);
    parts->push_back(path.substr(start, slash == std::string::npos ? slash : slash - start));
    if (slash == std::string::npos) return true;
    start = slash + 1;
  }
}

// The removal command leaves a tab or a line end unescaped, which would split
// the path into several, and a "*", which may match a link in a folder part or
// ".." where the name starts with a dot.
bool IsSafeForRemoval(const std::vector<std::string>& parts) {
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::string& part = parts[i];
    if (part.find_first_of("\t\n") != std::string::npos) return false;
    const bool star = part.find('*') != std::string::npos;
    if (star && (i + 1 < parts.size() || part[0] == '.')) return false;
  }
  return true;
}

}  // namespace

bool IsPlainStorePath(const std::string& path) {
  std::vector<std::string> parts;
  if (!SplitStorePath(path, &parts)) return false;
  for (const std::string& part : parts) {
    if (!IsPlainName(part)) return false;
  }
  return true;
}

bool IsSafeServerPath(const std::string& sync_folder, const std::string& path, PathUse use) {
  std::vector<std::string> parts;
  bool safe = IsPlainStorePath(path) && SplitStorePath(path, &parts) &&
              (use != PathUse::kRemoveTree || IsSafeForRemoval(parts));
  // A link anywhere on the way would carry the change out of the folder; the
  // walk ends where the disk has nothing more, as what is made there is new.
  std::string local = sync_folder;
  const size_t checked = use == PathUse::kRemoveTree ? parts.size() : parts.size() - 1;
  for (size_t i = 0; safe && i < checked; ++i) {
    local += "/" + parts[i];
    struct stat st;
    if (lstat(local.c_str(), &st) != 0) break;
    if (S_ISLNK(st.st_mode)) safe = false;
  }
  if (!safe) {
    QS_LOG(kLogError, "Refused server path [%s]", path.c_str());
    ++g_refusals;
  }
  return safe;
}

bool IsSafeServerEntry(const FileMetadata& entry) {
  const bool safe = IsPlainStorePath(entry.path_lower) && IsPlainStorePath(entry.path_display) &&
                    IsPlainName(entry.name);
  if (!safe) {
    QS_LOG(kLogError, "Refused server entry [%s] [%s] [%s]", entry.path_lower.c_str(),
           entry.path_display.c_str(), entry.name.c_str());
  }
  return safe;
}

void NoteServerItemFailure() { ++g_refusals; }

int TakeServerPathRefusals() { return g_refusals.exchange(0); }

bool IsValidUtf8(const std::string& text) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = s[i];
    size_t len;
    unsigned int cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xe0) == 0xc0) {
      len = 2;
      cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      len = 3;
      cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((s[i + k] & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (s[i + k] & 0x3f);
    }
    static const unsigned int kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kSmallest[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
    i += len;
  }
  return true;
}

}  // namespace dropbox
}  // namespace quillstone
