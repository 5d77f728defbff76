// The listing requests against the emulator, over HTTPS with its own CA: the
// first page, continued pages, an empty page, a refused cursor, and a reply
// that is not JSON.
#include <gtest/gtest.h>

#include <set>

#include "dropboxprotocol.h"
#include "support/emulator.h"
#include "support/test_root.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;

namespace {

std::set<std::string> PathsOf(const DropboxProtocol& protocol) {
  std::set<std::string> paths;
  for (const FileMetadata* entry : protocol.entries_) paths.insert(entry->path_display);
  return paths;
}

TEST(ProtocolEmulatorTest, ListingPagesCursorsAndBadReplies) {
  qs_test::DeviceRoot();
  qs_test::Emulator emulator;
  ASSERT_TRUE(emulator.ok());
  emulator.PutFile("/Books/a.epub", "a");
  emulator.PutFile("/Books/b.epub", "bb");
  emulator.PutFile("/c.txt", "ccc");
  ASSERT_EQ(200, emulator.Admin("settings", "{\"page_size\": 2}"));

  DropboxProtocol protocol;
  protocol.loadAccessToken();
  ASSERT_EQ(0, protocol.receiveAccountInfo());
  EXPECT_EQ(protocol.account_id_, protocol.uid_);
  EXPECT_EQ(0u, protocol.account_id_.find("dbid:"));

  // The whole account in pages of two, parents before children.
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol.ReceiveDelta(""));
  EXPECT_TRUE(protocol.has_more_);
  std::set<std::string> seen = PathsOf(protocol);
  ASSERT_EQ(2u, seen.size());
  EXPECT_TRUE(seen.count("/Books"));
  std::string cursor = protocol.cursor_;
  while (protocol.has_more_) {
    ASSERT_EQ(DropboxProtocol::kSuccess, protocol.ReceiveDelta(protocol.cursor_));
    for (const auto& path : PathsOf(protocol)) seen.insert(path);
  }
  EXPECT_EQ((std::set<std::string>{"/Books", "/Books/a.epub", "/Books/b.epub", "/c.txt"}), seen);

  // Nothing new since the last cursor: an empty last page.
  std::string last = protocol.cursor_;
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol.ReceiveDelta(last));
  EXPECT_TRUE(protocol.entries_.empty());
  EXPECT_FALSE(protocol.has_more_);
  EXPECT_FALSE(protocol.cursor_.empty());

  // A change seen from an old cursor, with the deletion as its own entry.
  ASSERT_EQ(200, emulator.Admin("files/delete", "{\"account\": \"tester\", \"path\": \"/c.txt\"}"));
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol.ReceiveDelta(last));
  ASSERT_EQ(1u, protocol.entries_.size());
  EXPECT_TRUE(protocol.entries_[0]->is_deleted);
  EXPECT_EQ("/c.txt", protocol.entries_[0]->path_lower);

  // A cursor the service no longer accepts (409 reset) and one it never
  // made (400) are answers the engine does not act on.
  ASSERT_EQ(200, emulator.Admin("cursors/reset", "{\"account\": \"tester\"}"));
  EXPECT_EQ(DropboxProtocol::kErrServer, protocol.ReceiveDelta(cursor));
  EXPECT_EQ(DropboxProtocol::kErrServer, protocol.ReceiveDelta("not-a-cursor"));

  // A 200 whose body is not JSON: an empty page that ends the listing.
  ASSERT_EQ(200, emulator.Admin("faults", "{\"route\": \"files/list_folder\", \"status\": 200, "
                                          "\"body\": \"<html>proxy login</html>\"}"));
  protocol.has_more_ = true;
  EXPECT_EQ(DropboxProtocol::kSuccess, protocol.ReceiveDelta(""));
  EXPECT_TRUE(protocol.entries_.empty());
  EXPECT_TRUE(protocol.cursor_.empty());
  EXPECT_FALSE(protocol.has_more_);

  // An expired token.
  ASSERT_EQ(200, emulator.Admin("tokens/expire", "{\"account\": \"tester\"}"));
  EXPECT_EQ(DropboxProtocol::kNotAuthorized, protocol.ReceiveDelta(""));
}

}  // namespace
