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

std::string Xxh3Text(const std::string& data) {
  XXH128_hash_t whole = XXH3_128bits(data.data(), data.size());
  char text[33];
  snprintf(text, sizeof(text), "%016llx%016llx", static_cast<unsigned long long>(whole.high64),
           static_cast<unsigned long long>(whole.low64));
  return text;
}

TEST(QuickMD5, DigestOfTheWholeContentOrTheFixedText) {
  qs_test::DeviceRoot();
  const std::string dir = qs_test::MakeTempDir("digest");
  // The published digest of no data, high half first.
  qs_test::WriteFile(dir + "/empty", "");
  EXPECT_EQ("99aa06d3014798d86001c324468d497f", ArbourUtilities::QuickMD5(dir + "/empty"));

  // Several read blocks, the last one partial; the last byte counts too.
  std::mt19937 random(7);
  std::string big(3 * 1024 * 1024 + 12345, '\0');
  for (char& c : big) c = static_cast<char>(random());
  for (char last : {'a', 'b'}) {
    big.back() = last;
    qs_test::WriteFile(dir + "/big", big);
    EXPECT_EQ(Xxh3Text(big), ArbourUtilities::QuickMD5(dir + "/big"));
  }

  // A FIFO in the tree must neither block the scan nor pass for an empty file.
  ASSERT_EQ(0, mkfifo((dir + "/fifo").c_str(), 0644));
  EXPECT_NE(32u, std::string(kUnreadableDigest).size());
  auto begin = std::chrono::steady_clock::now();
  for (const std::string& path : {dir + "/missing", dir, std::string(), dir + "/fifo"}) {
    EXPECT_EQ(kUnreadableDigest, ArbourUtilities::QuickMD5(path)) << path;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace
