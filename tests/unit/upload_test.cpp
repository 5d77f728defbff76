// File upload of the sync engine against the emulator: resuming from the
// stored session, and one row per
// kind of bad input or bad answer, in both profiles. Each row checks the
// result code, the upload requests the service saw, the resume keys left in
// the store, and what the service holds afterwards.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <thread>

#include "local_pass.h"
#include "support/emulator.h"
#include "support/test_root.h"

using quillstone::dropbox::ChunkedUpload;
using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;
using quillstone::dropbox::LocalPass;
using quillstone::dropbox::ProtocolService;
using quillstone::dropbox::RunContext;
using quillstone::dropbox::SyncProfile;

namespace {

const int kMiB = 1 << 20;

std::string Pattern(size_t size, char seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(seed + i * 31 + i / 4099);
  return out;
}

// The engine's upload parts over the real protocol and uploader; a cleared
// run flag aborts the transfer at its next tick, as the engine does.
struct UploadParts : quillstone::utilities::IUploaderCallback {
  UploadParts(const std::string& folder, SyncProfile profile)
      : folder(folder),
        service(protocol),
        run{store, status, this->folder, running, profile},
        chunked(run, service, uploader),
        pass(run, service, uploader, chunked, scanner,
             LocalPass::Tallies{deltas, files_done, files_total}) {
    uploader.callback_ = this;
  }
  void Progress() override {
    if (!running) uploader.abort_ = true;
  }
  std::string folder;
  quillstone::dropbox::DropboxProtocol protocol;
  ProtocolService service;
  quillstone::utilities::Uploader uploader;
  quillstone::dropbox::FileScanner scanner;
  FileMetadataManager store;
  quillstone::utilities::DownloadStatus status;
  std::atomic<bool> running{true};  // a cleared flag is a stop request
  std::map<std::string, quillstone::dropbox::FileSystemFileDelta> deltas;
  int files_done = 0;
  int files_total = 0;
  RunContext run;
  ChunkedUpload chunked;
  LocalPass pass;
};

class UploadTest : public ::testing::Test {
 public:
  void SetUp() override {
    ASSERT_TRUE(emu_.ok());
    folder_ = qs_test::MakeTempDir("sync");
    Profile(SyncProfile::kClassic);
  }
  void Profile(SyncProfile profile) {
    profile_ = profile;
    sync_.reset(new UploadParts(folder_, profile));
    ASSERT_EQ(0, sync_->store.Init(folder_ + "/.dropbox/files.db"));
    sync_->protocol.loadAccessToken();
  }
  void TearDown() override {
    if (sync_) sync_->running = false;
  }

  // The upload requests since the last call, in the order they began, as
  // "route@cursor-offset-in-MiB status".
  std::vector<std::string> Uploads() {
    // The emulator logs a request after answering it: wait until the log
    // holds still.
    std::string reply;
    std::string before;
    do {
      before = reply;
      usleep(100000);
      emu_.Admin("log?since=" + std::to_string(seq_), "", &reply);
    } while (reply != before);
    Json::Value log;
    Json::Reader().parse(reply, log);
    std::multimap<double, std::string> began;
    for (const Json::Value& e : log["requests"]) {
      seq_ = std::max(seq_, e["seq"].asInt());
      std::string route = e["route"].asString();
      if (route.find("files/upload") != 0) continue;
      route = route.substr(std::string("files/upload").size());
      // The requests that end an upload carry the hash of their body, in the
      // safe profile only.
      const bool last = route.empty() || route == "_session/finish";
      EXPECT_EQ(last && profile_ == SyncProfile::kSafe, e["args"]["content_hash"].isString())
          << route;
      const Json::Value& cursor = e["args"]["cursor"];
      if (cursor.isObject()) route += "@" + std::to_string(cursor["offset"].asInt64() / kMiB);
      began.emplace(e["time"].asDouble(), route + " " + e["status"].asString());
    }
    std::vector<std::string> out;
    for (const auto& entry : began) out.push_back(entry.second);
    return out;
  }
  // The service's content of `path`, "absent" when it has none.
  std::string ServerContent(const std::string& path) {
    std::map<std::string, std::string> headers;
    const std::string url = sync_->protocol.GetDownloadUrlAndHeaders(path, &headers);
    headers["Content-Type"] = "";
    long code = 0;
    std::vector<char> body;
    quillstone::utilities::HttpRequestRunner runner;
    runner.PerformRequest(quillstone::dropbox::MakeHttpRequest("POST", url, headers, ""), &code,
                          &body);
    return code == 200 ? std::string(body.begin(), body.end()) : "absent";
  }
  // "id|offset" of the resume keys; "-" for an absent key. A session that
  // also holds its file's size and time reads the same way.
  std::string Keys(const std::string& path) {
    std::string id = "-";
    int offset = -1;
    sync_->store.GetParam(path + ":upload_id", &id);
    bool has_offset = sync_->store.GetParamInt(path + ":uploaded_offset", &offset) == 0;
    std::string session;
    if (sync_->store.GetParam(path + ":upload_session", &session) == 0) {
      long long size = 0, mtime = 0, at = 0;
      EXPECT_EQ(3, sscanf(session.c_str(), "%lld %lld %lld", &size, &mtime, &at)) << session;
      EXPECT_TRUE(id == "-" && !has_offset) << "both kinds of keys";
      return "S|" + std::to_string(at / kMiB);
    }
    const std::string id_text = id.empty() ? "\"\"" : id == "-" ? "-" : "S";
    return id_text + "|" +
           (has_offset ? std::to_string(offset / kMiB) + (offset % kMiB ? "+" : "") : "-");
  }
  void Fault(const std::string& json) { ASSERT_EQ(200, emu_.Admin("faults", json)); }

  qs_test::Emulator emu_;
  std::string folder_;
  std::unique_ptr<UploadParts> sync_;
  int seq_ = 0;  // of the last request log entry seen
  SyncProfile profile_ = SyncProfile::kClassic;
};

// One call of UploadFile and what it should leave.
struct Call {
  int code;
  std::vector<std::string> uploads;
  std::string keys;    // as Keys() gives them
  std::string server;  // "same", "absent", "last byte", or "mix" of old and new bytes
};

enum Action {
  kNone,
  kStop,
  kVanish,
  kShrink,
  kLinkToFolder,
  kStaleKeys,
  kChangeBetween,  // the whole file, between the calls
  kHuge,           // sparse, over 4 GiB, with a safe session stored near its end
};

struct Row {
  const char* name;
  size_t size;
  const char* fault;  // for the emulator, or null
  Action action;      // kVanish and kShrink act 0.5 s into the first call
  std::vector<Call> calls;
  std::vector<Call> safe = {};  // when the safe profile differs
};

TEST_F(UploadTest, SizesResumeAndBadAnswers) {
  const char* kStart = "_session/start 200";
  const char* kDelayStart = R"({"route":"files/upload_session/start","delay":2})";
  const char* kWhole[] = {kStart, "_session/append_v2@4 200", "_session/finish@8 200"};
  const char* kBad = "_session/start 400";
  const off_t kHugeSize = (off_t{4} << 30) + 1;
  // clang-format off
  const Row rows[] = {
    {"a stop ends the transfer and keeps no keys", 8 * kMiB + 1, nullptr, kStop,
     {{DropboxProtocol::kStopped, {}, "-|-", "absent"}}},
    {"the file vanishes after the first chunk", 8 * kMiB + 1, kDelayStart, kVanish,
     {{DropboxProtocol::kErrServer, {kStart}, "S|4", "absent"}}},
    {"the file shrinks after the first chunk, then goes whole, keys left", 8 * kMiB + 1,
     kDelayStart, kShrink,
     {{DropboxProtocol::kErrServer, {kStart, "_session/append_v2@4 dropped"}, "S|4", "absent"},
      {0, {" 200"}, "S|4", "same"}}},
    {"a link to a folder cannot be read", 0, nullptr, kLinkToFolder,
     {{DropboxProtocol::kFail, {}, "-|-", "absent"}}},
    {"a stored offset beyond the file skips to a blank success", 8 * kMiB + 1, nullptr,
     kStaleKeys, {{0, {}, "-|-", "absent"}},
     {{0, {kWhole[0], kWhole[1], kWhole[2]}, "-|-", "same"}}},
    {"a chunk answered with no JSON loses the session", 8 * kMiB + 1,
     R"({"route":"files/upload_session/start","status":200,"body":"<html>"})", kNone,
     {{DropboxProtocol::kErrServer, {kStart, kStart, "_session/finish@8 409"}, "S|8+", "absent"},
      {0, {}, "-|-", "absent"}},
     {{0, {kStart, kWhole[0], kWhole[1], kWhole[2]}, "-|-", "same"}}},
    {"404 on a session starts over", 8 * kMiB + 1,
     R"({"route":"files/upload_session/append_v2","status":404})", kNone,
     {{0, {kStart, "_session/append_v2@4 404", kStart, "_session/append_v2@4 200",
           "_session/finish@8 200"}, "-|-", "same"}}},
    {"a fourth 400 ends the upload", 12 * kMiB + 1, R"({"status":400,"count":4})", kNone,
     {{DropboxProtocol::kFail, {kBad, kBad, kBad, " 400"}, "-|12+", "absent"}},
     {{DropboxProtocol::kFail, {kBad, kBad, kBad, kBad}, "-|-", "absent"}}},
    {"three 400s skip the body but the last byte", 12 * kMiB + 1, R"({"status":400,"count":3})",
     kNone, {{0, {kBad, kBad, kBad, " 200"}, "-|-", "last byte"}},
     {{0, {kBad, kBad, kBad, kWhole[0], kWhole[1], "_session/append_v2@8 200",
           "_session/finish@12 200"}, "-|-", "same"}}},
    {"a file changed between runs", 8 * kMiB + 1,
     R"({"route":"files/upload_session/append_v2","drop_request_after":1000})", kChangeBetween,
     {{DropboxProtocol::kErrNoNetwork, {kStart, "_session/append_v2@4 dropped"}, "S|4", "absent"},
      {0, {"_session/append_v2@4 200", "_session/finish@8 200"}, "-|-", "mix"}},
     {{DropboxProtocol::kErrNoNetwork, {kStart, "_session/append_v2@4 dropped"}, "S|4", "absent"},
      {0, {kWhole[0], kWhole[1], kWhole[2]}, "-|-", "same"}}},
    {"a refused hash: classic keeps an offset past the file and later sends nothing",
     8 * kMiB + 1, R"({"route":"files/upload_session/finish","status":409,)"
     R"("body":"{\"error_summary\":\"content_hash_mismatch/\"}"})", kNone,
     {{DropboxProtocol::kErrServer, {kWhole[0], kWhole[1], "_session/finish@8 409"}, "S|8+",
       "absent"}, {0, {}, "-|-", "absent"}},
     {{DropboxProtocol::kErrServer, {kWhole[0], kWhole[1], "_session/finish@8 409"}, "-|-",
       "absent"}, {0, {kWhole[0], kWhole[1], kWhole[2]}, "-|-", "same"}}},
    {"a file over 4 GiB", 0, R"({"route":"files/upload_session/start","drop_request_after":1000})",
     kHuge, {{DropboxProtocol::kFail, {}, "S|4096", "absent"}},
     {{DropboxProtocol::kErrNoNetwork, {"_session/finish@4096 409", "_session/start dropped"},
       "-|-", "absent"}}},
  };
  // clang-format on
  char seed = 'a';
  for (SyncProfile profile : {SyncProfile::kClassic, SyncProfile::kSafe}) {
    Profile(profile);
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.name) + (profile == SyncProfile::kSafe ? " (safe)" : ""));
      const std::vector<Call>& calls =
          profile == SyncProfile::kSafe && !row.safe.empty() ? row.safe : row.calls;
      const std::string path = std::string("/") + seed + ".bin";
      const std::string full = folder_ + path;
      const std::string content = Pattern(row.size, seed++);
      const std::string rewritten = Pattern(row.size, '~');
      qs_test::WriteFile(full, content);
      if (row.fault) Fault(row.fault);
      if (row.action == kStop) sync_->running = false;
      if (row.action == kLinkToFolder) {
        unlink(full.c_str());
        ASSERT_EQ(0, symlink(folder_.c_str(), full.c_str()));
      }
      if (row.action == kStaleKeys) {
        sync_->store.SetParam(path + ":upload_id", "gone");
        sync_->store.SetParamInt(path + ":uploaded_offset", 20 * kMiB);
      }
      if (row.action == kHuge) {
        ASSERT_EQ(0, truncate(full.c_str(), kHugeSize));
        struct stat st;
        ASSERT_EQ(0, stat(full.c_str(), &st));
        const long long mtime = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
        sync_->store.SetParam(path + ":upload_session",
                              std::to_string(kHugeSize) + " " + std::to_string(mtime) + " " +
                                  std::to_string(kHugeSize - 1) + " gone");
      }
      for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        const Call& want = calls[i];
        if (i == 1 && row.action == kChangeBetween) qs_test::WriteFile(full, rewritten);
        std::thread during;
        if (i == 0 && (row.action == kVanish || row.action == kShrink)) {
          during = std::thread([&] {
            usleep(500000);  // the request in hand is held for 2 s
            if (row.action == kVanish) unlink(full.c_str());
            if (row.action == kShrink) (void)truncate(full.c_str(), 5 * kMiB);
          });
        }
        FileMetadata* result = nullptr;
        EXPECT_EQ(want.code, sync_->pass.UploadFile(path, &result));
        if (during.joinable()) during.join();
        EXPECT_EQ(want.code == 0, result != nullptr);
        delete result;
        EXPECT_EQ(want.uploads, Uploads());
        EXPECT_EQ(want.keys, Keys(path));
        const std::string server = ServerContent(path);
        if (want.server == "same") {
          EXPECT_TRUE(server == qs_test::ReadFile(full)) << server.size();
        } else if (want.server == "mix") {
          EXPECT_TRUE(server.size() == content.size() && server != content && server != rewritten);
        } else {
          EXPECT_EQ(want.server == "last byte" ? content.substr(content.size() - 1) : want.server,
                    server);
        }
      }
      sync_->running = true;
      emu_.Admin("faults/clear", "{}");
      if (row.action == kHuge) unlink(full.c_str());
    }
  }
}

}  // namespace
