// The service's content hash of a local file, at the edges of SHA-256's
// padding and of the 4 MiB block; the figures are the service's algorithm as
// Python's hashlib computes it.

#include "content_hash.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/test_root.h"

namespace {

TEST(ContentHash, MatchesTheServiceAtEveryPaddingAndBlockEdge) {
  const std::string dir = qs_test::MakeTempDir("content-hash");
  const struct {
    size_t size;
    const char* hash;
  } cases[] = {
      {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {55, "ec0d23868cbf97855cfdd13265111777d6f2b0eb01fa70e54bba8f86b3d71705"},
      {56, "f446d6b0c37c2b2576c0c46cacd640ac19f13b85a4e9610348965d1fabae35c5"},
      {64, "029bee4e910df23d1a9811964eccff3b21f9e3434d6203b110cdeb92f5e83bc9"},
      {4194304, "fa03b9654affc7723a5e28412eb760da1104a195e3c64e566e333da692a5872e"},
      {4194305, "4cbe6c3801a7708e3067f989a7fee908c87623876241605499202eb794a83c29"},
  };
  for (const auto& c : cases) {
    std::string data(c.size, '\0');
    for (size_t i = 0; i < c.size; ++i) data[i] = static_cast<char>((i * 7) % 251);
    const std::string path = dir + "/f" + std::to_string(c.size);
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
    std::string hash;
    EXPECT_TRUE(quillstone::dropbox::ContentHashOfRange(path, 0, c.size, &hash)) << c.size;
    EXPECT_EQ(c.hash, hash) << c.size;
    EXPECT_EQ(c.hash, quillstone::dropbox::ContentHashOf(data)) << c.size;
  }
  std::string hash;
  EXPECT_FALSE(quillstone::dropbox::ContentHashOfRange(dir + "/missing", 0, 1, &hash));
}

}  // namespace
