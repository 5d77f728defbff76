// The content digest that tells the sync whether a file changed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <xxhash.h>

#include <chrono>
#include <cstdio>
#include <random>

#include "arbour_utilities.h"
#include "support/test_root.h"

using quillstone::utilities::ArbourUtilities;
using quillstone::utilities::kUnreadableDigest;

namespace {

class QuickMD5Test : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    dir_ = qs_test::MakeTempDir("digest");
  }
  std::string dir_;
};

bool IsDigest(const std::string& text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST_F(QuickMD5Test, DigestFollowsTheWholeContent) {
  // The published XXH3 128-bit digest of no data, high half first.
  qs_test::WriteFile(dir_ + "/empty", "");
  EXPECT_EQ("99aa06d3014798d86001c324468d497f", ArbourUtilities::QuickMD5(dir_ + "/empty"));

  // Several read blocks, the last one partial.
  std::mt19937 random(7);
  std::string big(3 * 1024 * 1024 + 12345, '\0');
  for (char& c : big) c = static_cast<char>(random());
  qs_test::WriteFile(dir_ + "/big", big);
  qs_test::WriteFile(dir_ + "/copy", big);
  std::string digest = ArbourUtilities::QuickMD5(dir_ + "/big");
  ASSERT_TRUE(IsDigest(digest)) << digest;
  EXPECT_EQ(digest, ArbourUtilities::QuickMD5(dir_ + "/copy"));

  XXH128_hash_t whole = XXH3_128bits(big.data(), big.size());
  char expected[33];
  snprintf(expected, sizeof(expected), "%016llx%016llx",
           static_cast<unsigned long long>(whole.high64),
           static_cast<unsigned long long>(whole.low64));
  EXPECT_EQ(expected, digest);

  // A change in the last byte, far beyond the first block, is seen.
  big.back() ^= 1;
  qs_test::WriteFile(dir_ + "/copy", big);
  EXPECT_NE(digest, ArbourUtilities::QuickMD5(dir_ + "/copy"));
}

TEST_F(QuickMD5Test, WhatCannotBeReadGivesTheFixedTextPromptly) {
  EXPECT_FALSE(IsDigest(kUnreadableDigest));
  EXPECT_EQ(kUnreadableDigest, ArbourUtilities::QuickMD5(dir_ + "/missing"));
  EXPECT_EQ(kUnreadableDigest, ArbourUtilities::QuickMD5(dir_));
  EXPECT_EQ(kUnreadableDigest, ArbourUtilities::QuickMD5(""));

  // A FIFO in the tree must neither block the scan nor pass for an empty file.
  ASSERT_EQ(0, mkfifo((dir_ + "/fifo").c_str(), 0644));
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(kUnreadableDigest, ArbourUtilities::QuickMD5(dir_ + "/fifo"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace
