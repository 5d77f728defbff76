#define QS_SOURCE_NAME "src/content_hash"

#include "content_hash.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace quillstone {
namespace dropbox {

namespace {

const int64_t kBlockSize = 4 * 1024 * 1024;

class Sha256 {
 public:
  Sha256()
      : state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
               0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19} {}

  void Update(const unsigned char* data, size_t size) {
    length_ += size;
    while (size > 0) {
      const size_t take = std::min(size, sizeof(block_) - used_);
      memcpy(block_ + used_, data, take);
      used_ += take;
      data += take;
      size -= take;
      if (used_ == sizeof(block_)) {
        Compress(block_);
        used_ = 0;
      }
    }
  }

  void Final(unsigned char digest[32]) {
    const uint64_t bits = length_ * 8;
    const unsigned char pad = 0x80;
    Update(&pad, 1);
    const unsigned char zero = 0;
    while (used_ != 56) Update(&zero, 1);
    unsigned char tail[8];
    for (int i = 0; i < 8; ++i) tail[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    Update(tail, 8);
    for (int i = 0; i < 8; ++i) {
      for (int j = 0; j < 4; ++j)
        digest[4 * i + j] = static_cast<unsigned char>(state_[i] >> (24 - 8 * j));
    }
  }

 private:
  static uint32_t Rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

  void Compress(const unsigned char* p) {
    static const uint32_t k[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
        0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
        0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
        0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
        0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
        0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
        0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
        0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
        0xc67178f2};
    uint32_t w[64];
    for (int i = 0; i < 16; ++i) {
      w[i] = static_cast<uint32_t>(p[4 * i]) << 24 | static_cast<uint32_t>(p[4 * i + 1]) << 16 |
             static_cast<uint32_t>(p[4 * i + 2]) << 8 | p[4 * i + 3];
    }
    for (int i = 16; i < 64; ++i) {
      const uint32_t s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
      const uint32_t s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    uint32_t e = state_[4], f = state_[5], g = state_[6], h = state_[7];
    for (int i = 0; i < 64; ++i) {
      const uint32_t t1 =
          h + (Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25)) + ((e & f) ^ (~e & g)) + k[i] + w[i];
      const uint32_t t2 = (Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
      h = g;
      g = f;
      f = e;
      e = d + t1;
      d = c;
      c = b;
      b = a;
      a = t1 + t2;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
    state_[4] += e;
    state_[5] += f;
    state_[6] += g;
    state_[7] += h;
  }

  uint32_t state_[8];
  unsigned char block_[64];
  size_t used_ = 0;
  uint64_t length_ = 0;
};

// Feeds whole blocks' digests into the outer hash as the bytes come.
class BlockHasher {
 public:
  void Update(const unsigned char* data, size_t size) {
    while (size > 0) {
      const size_t take = static_cast<size_t>(std::min<int64_t>(size, kBlockSize - in_block_));
      block_.Update(data, take);
      in_block_ += take;
      data += take;
      size -= take;
      if (in_block_ == kBlockSize) EndBlock();
    }
  }
  std::string Hex() {
    // An empty last block adds nothing: a size that is a multiple of the
    // block size has no extra digest.
    if (in_block_ > 0) EndBlock();
    unsigned char digest[32];
    outer_.Final(digest);
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : digest) {
      hex += kDigits[byte >> 4];
      hex += kDigits[byte & 15];
    }
    return hex;
  }

 private:
  void EndBlock() {
    unsigned char digest[32];
    block_.Final(digest);
    outer_.Update(digest, sizeof(digest));
    block_ = Sha256();
    in_block_ = 0;
  }
  Sha256 block_;
  Sha256 outer_;
  int64_t in_block_ = 0;
};

}  // namespace

bool ContentHashOfRange(const std::string& path, int64_t offset, int64_t size, std::string* hex) {
  if (offset < 0 || size < 0) return false;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return false;
  BlockHasher hasher;
  std::vector<unsigned char> buffer(256 * 1024);
  int64_t left = size;
  while (left > 0) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(left, buffer.size()));
    const ssize_t got = pread(fd, buffer.data(), want, static_cast<off_t>(offset + (size - left)));
    if (got <= 0) break;
    hasher.Update(buffer.data(), static_cast<size_t>(got));
    left -= got;
  }
  close(fd);
  if (left > 0) return false;
  *hex = hasher.Hex();
  return true;
}

std::string ContentHashOf(const std::string& data) {
  BlockHasher hasher;
  hasher.Update(reinterpret_cast<const unsigned char*>(data.data()), data.size());
  return hasher.Hex();
}

}  // namespace dropbox
}  // namespace quillstone
