#pragma once

#include <string>

namespace quillstone {
namespace utilities {

class ArbourUtilities {
 public:
  // A text that identifies the content of the file at `path` (hexadecimal
  // XXH3 128-bit digest). Equal content gives equal text. A file that cannot
  // be read gives kUnreadableDigest, which never equals a real digest. Never
  // throws.
  static std::string QuickMD5(const std::string& path);

  // Deciphers one of the library's constant blocks into `out` (at most
  // `out_size` bytes, zero-ended within them). 0 on success.
  static int get_data(const unsigned char* block, size_t block_size, char* out, size_t out_size);
};

extern const char kUnreadableDigest[];

}  // namespace utilities
}  // namespace quillstone

namespace quillstone {
namespace utilities {

// Constant data blocks (app key, app secret, ...) hold their text XOR-ed byte
// by byte with kDataMask, cycled, then one masked zero byte. This keeps the
// texts out of plain sight in the binary; it is no protection.
constexpr unsigned char kDataMask[16] = {0x5a, 0xc3, 0x17, 0x8e, 0x21, 0xb4, 0x6d, 0xf0,
                                         0x39, 0x82, 0xe5, 0x4c, 0x97, 0x0b, 0xd6, 0x73};

template <size_t N>
struct DataBlock {
  unsigned char bytes[N];
};

// Enciphers a string literal at compile time (N counts the closing zero).
template <size_t N>
constexpr DataBlock<N> MakeDataBlock(const char (&text)[N]) {
  DataBlock<N> block{};
  for (size_t i = 0; i < N; ++i) {
    block.bytes[i] =
        static_cast<unsigned char>(static_cast<unsigned char>(text[i]) ^ kDataMask[i % 16]);
  }
  return block;
}

}  // namespace utilities
}  // namespace quillstone
