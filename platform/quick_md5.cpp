// Files beyond 2 GiB need 64-bit offsets also where off_t is 32 bits wide.
#define _FILE_OFFSET_BITS 64

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <memory>
#include <new>

#include "arbour_utilities.h"

namespace quillstone {
namespace utilities {

// Not 32 hexadecimal digits, so it never equals a digest: an unreadable file
// always differs from what was stored for it.
const char kUnreadableDigest[] = "unreadable";

namespace {

constexpr size_t kBlockBytes = 1024 * 1024;
constexpr size_t kSmallestBlock = 4096;

struct StateDeleter {
  void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

struct OpenFile {
  explicit OpenFile(int descriptor) : fd(descriptor) {}
  ~OpenFile() {
    if (fd >= 0) close(fd);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int fd;
};

std::string Hex(const XXH128_hash_t& hash) {
  XXH128_canonical_t canonical;  // big-endian: the high 64 bits come first
  XXH128_canonicalFromHash(&canonical, hash);
  static const char kDigits[] = "0123456789abcdef";
  std::string text(2 * sizeof(canonical.digest), '0');
  for (size_t i = 0; i < sizeof(canonical.digest); ++i) {
    text[2 * i] = kDigits[canonical.digest[i] >> 4];
    text[2 * i + 1] = kDigits[canonical.digest[i] & 0xf];
  }
  return text;
}

std::string Digest(const std::string& path) {
  // O_NONBLOCK so that a FIFO in the tree cannot hang the scan at open.
  OpenFile file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  int raw = file.fd;
  if (raw < 0) return kUnreadableDigest;

  struct stat st;
  // Only regular files have a content to digest; a device or a FIFO could
  // give endless or no data.
  if (fstat(raw, &st) != 0 || !S_ISREG(st.st_mode)) return kUnreadableDigest;
  (void)posix_fadvise(raw, 0, 0, POSIX_FADV_SEQUENTIAL);  // a hint only

  // Small files get a small buffer: a scan digests every file of the tree.
  size_t block = std::min(kBlockBytes, std::max(kSmallestBlock, static_cast<size_t>(st.st_size)));
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[block]);
  std::unique_ptr<XXH3_state_t, StateDeleter> state(XXH3_createState());
  if (!buffer || !state || XXH3_128bits_reset(state.get()) != XXH_OK) return kUnreadableDigest;

  for (;;) {
    ssize_t n = read(raw, buffer.get(), block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return kUnreadableDigest;
    if (n == 0) break;
    if (XXH3_128bits_update(state.get(), buffer.get(), static_cast<size_t>(n)) != XXH_OK)
      return kUnreadableDigest;
  }
  return Hex(XXH3_128bits_digest(state.get()));
}

}  // namespace

std::string ArbourUtilities::QuickMD5(const std::string& path) {
  try {
    return Digest(path);
  } catch (...) {
    return kUnreadableDigest;
  }
}

}  // namespace utilities
}  // namespace quillstone
