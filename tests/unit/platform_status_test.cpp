// DownloadStatus publishing and ConfigurationWatch change detection.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "configuration_watch.h"
#include "device_names.h"
#include "device_root.h"
#include "download_status.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::kAutosyncKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::utilities::ConfigurationWatch;
using quillstone::utilities::DownloadStatus;

namespace {

Json::Value ReadJson(const std::string& path) {
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string text = qs_test::ReadFile(path), errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
  return root;
}

class Status : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    channel_ = qs_test::Under("/tmp/download_status/dropbox.json");
  }
  std::string channel_;
};

TEST_F(Status, EverySetterPublishesTheWholeState) {
  DownloadStatus status;
  status.Init(quillstone::utilities::ServicesDownloadStatus::dropbox_name, 4321);
  EXPECT_EQ(4321, ReadJson(channel_)["pid"].asInt());
  status.ResetProgress();
  status.SetProgressStatus(DownloadStatus::kServerChanges);
  status.SetTotalProgressStatus(10, 3, 0, 0);
  std::vector<DownloadStatus::File> files = {DownloadStatus::File("id:1", "/a \"b\".epub", 0),
                                             DownloadStatus::File("id:2", "/bad\xff.pdf", 50)};
  status.SetFileList(files);
  status.SetErrorStatus(DownloadStatus::kErrorSeven, "");
  Json::Value state = ReadJson(channel_);
  EXPECT_EQ(1, state["phase"].asInt());
  EXPECT_EQ(10, state["total"].asInt());
  EXPECT_EQ(3, state["done"].asInt());
  EXPECT_EQ(7, state["error"].asInt());
  ASSERT_EQ(2u, state["files"].size());
  EXPECT_EQ("/a \"b\".epub", state["files"][0]["name"].asString());
  EXPECT_EQ("/bad\xef\xbf\xbd.pdf", state["files"][1]["name"].asString());  // still valid JSON
}

TEST_F(Status, CurrentFileUpdatesAreCheapAndTheLastOneIsPublished) {
  std::vector<DownloadStatus::File> files;
  for (int i = 0; i < 10000; ++i)
    files.emplace_back("id:" + std::to_string(i), "/books/file" + std::to_string(i) + ".epub", 0);
  {
    DownloadStatus status;
    status.Init("throttle", getpid());
    status.SetFileList(files);
    auto start = std::chrono::steady_clock::now();
    DownloadStatus::File file("id:7", "/books/file7.epub", 0);
    for (int i = 0; i <= 5000; ++i) {
      file.progress = i / 50;
      file.downloaded_bytes = i;
      status.SetCurrentProgressStatus(file);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(5000, status.current_file_.downloaded_bytes);
    // Held-back figures reach the file without a further setter, also after
    // the background writer went idle...
    auto published = [] { return ReadJson(qs_test::Under("/tmp/download_status/throttle.json")); };
    for (int bytes : {5000, 4999, 5000}) {
      file.downloaded_bytes = bytes;
      status.SetCurrentProgressStatus(file);
      for (int i = 0; i < 100 && published()["current_file"]["downloaded_bytes"] != bytes; ++i)
        usleep(50 * 1000);
      EXPECT_EQ(bytes, published()["current_file"]["downloaded_bytes"].asInt());
    }
    // ...and the figures that finish the list go out at once.
    for (int done : {1, 2, 10000}) status.SetTotalProgressStatus(10000, done, 0, 0);
    EXPECT_EQ(10000, published()["done"].asInt());
    status.SetTotalProgressStatus(10000, 9, 0, 0);
    status.SetCurrentProgressStatus(file);
  }
  Json::Value state = ReadJson(qs_test::Under("/tmp/download_status/throttle.json"));
  EXPECT_EQ(5000, state["current_file"]["downloaded_bytes"].asInt());
  EXPECT_EQ(100, state["current_file"]["progress"].asInt());
  EXPECT_EQ(9, state["done"].asInt()) << "the destructor writes what was held back";
  EXPECT_EQ(10000u, state["files"].size());
}

class CountingNotify : public ConfigurationWatch::Notify {
 public:
  explicit CountingNotify(ConfigurationWatch* watch) : watch_(watch) {}
  void Changed() override {
    ++calls_;
    watch_->CheckChanges();  // as the library does; must find nothing new
  }
  ConfigurationWatch* watch_;
  int calls_ = 0;
};

void SetKey(const std::string& path, const char* key, const char* value) {
  void* config = OpenConfig(path.c_str(), nullptr);
  WriteString(config, key, value);
  SaveConfig(config);
  CloseConfigNoSave(config);
}

TEST_F(Status, WatchSeesEachChangeOnceAndFollowsTheFile) {
  std::string path = qs_test::Under(kDropboxSettingsFile);
  ConfigurationWatch watch;
  CountingNotify notify(&watch);
  ASSERT_EQ(0, watch.Init(path, &notify));  // no file yet: an empty view
  EXPECT_EQ(1, ReadInt(watch.config_, kAutosyncKey, 1));
  watch.CheckChanges();
  EXPECT_EQ(0, notify.calls_);

  SetKey(path, kAutosyncKey, "0");
  watch.CheckChanges();
  watch.CheckChanges();
  EXPECT_EQ(1, notify.calls_);
  EXPECT_EQ(0, ReadInt(watch.config_, kAutosyncKey, 1));

  ASSERT_EQ(0, unlink(path.c_str()));
  watch.CheckChanges();
  EXPECT_EQ(2, notify.calls_);
  EXPECT_EQ(1, ReadInt(watch.config_, kAutosyncKey, 1));

  // A second Init replaces the first; an unreadable path fails and leaves no handle.
  EXPECT_NE(0, watch.Init(qs_test::MakeTempDir("not-a-file"), &notify));
  EXPECT_EQ(nullptr, watch.config_);
  EXPECT_EQ(5, ReadInt(watch.config_, "x", 5));
}

}  // namespace
