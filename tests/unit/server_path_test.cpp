#include "server_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "file_metadata.h"
#include "support/test_root.h"

namespace quillstone {
namespace dropbox {
namespace {

// Every way a path could lead out of the folder, and the plain ones that must
// still pass, for each use; "link" is a link inside the folder to outside it.
TEST(ServerPathTest, RefusesWhatLeavesTheFolder) {
  const std::string root = qs_test::MakeTempDir("server_path");
  const std::string folder = root + "/sync";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  ASSERT_EQ(0, mkdir((root + "/outside").c_str(), 0755));
  ASSERT_EQ(0, mkdir((folder + "/a").c_str(), 0755));
  ASSERT_EQ(0, symlink("../outside", (folder + "/link").c_str()));

  struct Case {
    std::string path;
    bool write;   // a file made or replaced, a folder made, a file unlinked
    bool remove;  // a folder removed with all below it
  };
  const Case cases[] = {
      {"/a/b.pdf", true, true},
      {"/new/deep/x", true, true},
      {"/a/B\xc3\xbc*", true, true},  // a star in the last name stays inside
      {"/link", true, false},         // replacing the link itself stays inside
      {"/link/x", false, false},
      {"/link/new/x", false, false},
      {"/a/.*", true, false},  // the shell would find ".." in it
      {"/*/x", true, false},
      {"/a/b\tc", true, false},
      {"/a/b\nc", true, false},
      {"/../outside.txt", false, false},
      {"/a/../../x", false, false},
      {"/a/./b", false, false},
      {"/a//b", false, false},
      {"/a/", false, false},
      {"/", false, false},
      {"", false, false},
      {"a/b", false, false},
      {"/a\\b", false, false},
      {std::string("/a\0b", 4), false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.write, IsSafeServerPath(folder, c.path, PathUse::kWrite)) << c.path;
    EXPECT_EQ(c.remove, IsSafeServerPath(folder, c.path, PathUse::kRemoveTree)) << c.path;
  }
  (void)TakeServerPathRefusals();

  FileMetadata entry;
  entry.path_lower = "/a/b.pdf";
  entry.path_display = "/A/b.pdf";
  entry.name = "b.pdf";
  EXPECT_TRUE(IsSafeServerEntry(entry));
  for (std::string FileMetadata::*field :
       {&FileMetadata::path_lower, &FileMetadata::path_display, &FileMetadata::name}) {
    FileMetadata hostile = entry;
    hostile.*field = "..";
    EXPECT_FALSE(IsSafeServerEntry(hostile));
  }
  entry.name = "a/b";
  EXPECT_FALSE(IsSafeServerEntry(entry));
  EXPECT_EQ(0, TakeServerPathRefusals());  // the page loop ends on these itself
}

TEST(ServerPathTest, TellsUtf8) {
  const struct {
    const char* text;
    bool valid;
  } cases[] = {
      {"plain", true},
      {"B\xc3\xbc"
       "cher",
       true},
      {"\xe2\x82\xac", true},
      {"\xf0\x9f\x93\x9a", true},
      {"\xff", false},
      {"a\x80", false},
      {"\xc3", false},
      {"\xc0\xaf", false},
      {"\xe0\x80\xaf", false},
      {"\xed\xa0\x80", false},
      {"\xf4\x90\x80\x80", false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.valid, IsValidUtf8(c.text)) << c.text;
}

}  // namespace
}  // namespace dropbox
}  // namespace quillstone
