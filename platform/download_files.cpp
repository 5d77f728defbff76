// The files a download keeps beside its target (see download_files.h).
#define _FILE_OFFSET_BITS 64

#include "download_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

#include "host_common.h"
#include "split_path.h"
#include "tessera.h"

namespace quillstone {
namespace utilities {
namespace kept {

namespace {

constexpr size_t kMaxRecordBytes = 4096;
// A name may be this long; what is kept beside the target must fit as well.
constexpr size_t kNameMax = 255;
// The shortened names keep this many hex digits of a hash of the whole name,
// so two long names with a common start do not share their leftovers.
constexpr size_t kNameHashDigits = 16;

}  // namespace

std::string Beside(const std::string& target, const char* suffix) {
  const size_t slash = target.rfind('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  const size_t name_size = target.size() - start;
  const size_t suffix_size = strlen(suffix);
  if (name_size + suffix_size <= kNameMax) return target + suffix;
  uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
  for (size_t i = start; i < target.size(); ++i) {
    hash = (hash ^ static_cast<unsigned char>(target[i])) * 0x100000001b3ULL;
  }
  size_t keep = kNameMax - suffix_size - 1 - kNameHashDigits;
  // Not inside a character: continuation bytes are 10xxxxxx.
  while (keep > 0 && (static_cast<unsigned char>(target[start + keep]) & 0xc0) == 0x80) --keep;
  char digits[kNameHashDigits + 1];
  snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(hash));
  return target.substr(0, start + keep) + "~" + digits + suffix;
}

bool ReadRecord(const std::string& path, ProgressRecord* record) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string text;
  char buffer[1024];
  while (text.size() <= kMaxRecordBytes) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  if (text.size() > kMaxRecordBytes) return false;

  bool have_size = false, have_bytes = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) return false;  // a torn record is no record
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    size_t eq = line.find('=');
    if (eq == std::string::npos) return false;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    if (key == "url") {
      record->url = value;
    } else if (key == "etag") {
      record->etag = value;
    } else if (key == "size" || key == "bytes") {
      char* rest = nullptr;
      errno = 0;
      long long number = strtoll(value.c_str(), &rest, 10);
      if (errno != 0 || rest == value.c_str() || *rest != '\0' || number < 0) return false;
      (key == "size" ? record->size : record->bytes) = number;
      (key == "size" ? have_size : have_bytes) = true;
    }
  }
  return have_size && have_bytes && !record->url.empty() && !record->etag.empty();
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string FolderOf(const std::string& path) {
  std::string folder;
  return SplitPath(path, &folder, nullptr) ? folder + "/" : ".";
}

void SyncFolderOf(const std::string& path) { host::SyncFolder(FolderOf(path)); }

bool WriteRecord(const std::string& target, const ProgressRecord& record) {
  std::string text = "url=" + record.url + "\netag=" + record.etag +
                     "\nsize=" + std::to_string(record.size) +
                     "\nbytes=" + std::to_string(record.bytes) + "\n";
  std::string temp = Beside(target, kRecordTempSuffix);
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text.data(), text.size()) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok || te_rename(temp.c_str(), Beside(target, kRecordSuffix).c_str()) != 0) {
    te_unlink(temp.c_str());
    return false;
  }
  SyncFolderOf(target);
  return true;
}

void RemoveKept(const std::string& target) {
  te_unlink(Beside(target, kPartSuffix).c_str());
  te_unlink(Beside(target, kRecordSuffix).c_str());
  te_unlink(Beside(target, kRecordTempSuffix).c_str());
}

}  // namespace kept
}  // namespace utilities
}  // namespace quillstone
