// Lower case of stored names, and the wide-text conversions of hosts.
#include "string_utils.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "split_path.h"
#include "support/test_root.h"

namespace {

using quillstone::utilities::StringUtils;

TEST(StringUtils, ToLowerFollowsTheDeviceCaseTable) {
  qs_test::DeviceRoot();
  EXPECT_EQ("/äöü/straße ÿ σασ/日.txt", StringUtils::ToLower("/ÄÖÜ/STRAßE Ÿ ΣΑΣ/日.TXT"));
  // No UTF-8 (a stray byte, an overlong form, a surrogate, a cut character): unchanged.
  for (const char* broken : {"BAD\xff/NAME", "\xc0\xaf", "\xed\xa0\x80", "\xe2\x82"}) {
    EXPECT_EQ(broken, StringUtils::ToLower(broken));
  }
  EXPECT_EQ("ab", StringUtils::ToLower(std::string("AB\0CD", 5)));  // ends at a zero byte
}

// Store paths, device paths and URL paths all split here: the root's
// children, bare names and folder paths with a trailing "/" must not differ.
TEST(StringUtils, SplitPathAtTheLastSlash) {
  const struct {
    const char* path;
    bool split;
    const char* folder;
    const char* base;
  } cases[] = {{"", false, "", ""},   {"a.epub", false, "", "a.epub"},
               {"/a", true, "", "a"}, {"/a/b c/d.pdf", true, "/a/b c", "d.pdf"},
               {"a/", true, "a", ""}, {"/", true, "", ""}};
  for (const auto& c : cases) {
    std::string folder = "x", base = "x";
    EXPECT_EQ(c.split, quillstone::utilities::SplitPath(c.path, &folder, &base)) << c.path;
    EXPECT_EQ(c.folder, folder) << c.path;
    EXPECT_EQ(c.base, base) << c.path;
  }
}

TEST(WideText, NarrowAndWidenThroughTheLocale) {
  std::locale utf8;
  try {
    utf8 = std::locale("C.UTF-8");
  } catch (const std::runtime_error&) {
    GTEST_SKIP() << "no UTF-8 locale on this host";
  }
  const std::string text = "héllo € 𝄞 トラ";
  const std::wstring wide = widen(text, utf8);
  EXPECT_EQ(L"héllo € 𝄞 トラ", wide);
  EXPECT_EQ(text, narrow(wide, utf8));
  // A bad byte stops the conversion and leaves the buffer at full length.
  EXPECT_EQ(std::wstring(L"a\0\0", 3), widen("a\xffz", utf8));
  // A text that ends inside a character must not grow the buffer for ever.
  EXPECT_EQ(L"a", widen("a\xc3", utf8));
}

}  // namespace
