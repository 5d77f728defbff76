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

  // The paths each use takes; every other path of the lists is refused.
  const std::vector<std::string> both = {"/a/b.pdf", "/new/deep/x",
                                         "/a/B\xc3\xbc*"};  // a star in the last name stays inside
  const std::vector<std::string> write_only = {"/link",  // replacing the link itself stays inside
                                               "/a/.*",  // the shell would find ".." in it
                                               "/*/x", "/a/b\tc", "/a/b\nc"};
  const std::vector<std::string> neither = {"/link/x",    "/link/new/x", "/../outside.txt",
                                            "/a/../../x", "/a/./b",      "/a//b",
                                            "/a/",        "/",           "",
                                            "a/b",        "/a\\b",       std::string("/a\0b", 4)};
  for (const auto* list : {&both, &write_only, &neither}) {
    for (const std::string& path : *list) {
      EXPECT_EQ(list != &neither, IsSafeServerPath(folder, path, PathUse::kWrite)) << path;
      EXPECT_EQ(list == &both, IsSafeServerPath(folder, path, PathUse::kRemoveTree)) << path;
    }
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
  for (const char* text : {"plain", "B\303\274cher", "\xe2\x82\xac", "\xf0\x9f\x93\x9a"}) {
    EXPECT_TRUE(IsValidUtf8(text)) << text;
  }
  for (const char* text :
       {"\xff", "a\x80", "\xc3", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    EXPECT_FALSE(IsValidUtf8(text)) << text;
  }
}

}  // namespace
}  // namespace dropbox
}  // namespace quillstone
