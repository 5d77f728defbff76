// Fakes of the engine's seam: a service that answers from memory and
// download connections that finish as told, logging what the engine did
// with them ("start /a", "put /a", "drop /a").
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "download_pipeline.h"
#include "sync_env.h"

namespace qs_test {

using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::Headers;
using quillstone::utilities::Downloader;
using quillstone::utilities::FileToSync;

class FakeService : public quillstone::dropbox::SyncService {
 public:
  std::string DownloadUrl(const std::string& path, Headers*) override { return "dl:" + path; }
  std::string UploadUrl(const std::string& path, Headers*) override { return "up:" + path; }
  std::string ChunkUrl(const std::string& path, Headers*, const std::string&, int64_t,
                       bool) override {
    return "chunk:" + path;
  }
  int ResponseCode(long http_status, const std::vector<char>&) override {
    return http_status == 409 ? quillstone::dropbox::DropboxProtocol::kNotFound
                              : quillstone::dropbox::DropboxProtocol::kErrServer;
  }
  int CreateFolder(const std::string&) override { return 0; }
  int CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes) override {
    codes->assign(paths.size(), 0);
    return 0;
  }
  int Delete(const std::string&, const std::string&) override { return 0; }
  int RetryAfter() override { return 0; }
  int ListChildren(const std::string&, std::vector<quillstone::dropbox::ServerChild>*) override {
    return quillstone::dropbox::DropboxProtocol::kNotFound;
  }
  void SetCommitMode(const quillstone::dropbox::DropboxProtocol::CommitMode&) override {}
  int ListPage(const std::string&) override { return 0; }
  const std::vector<FileMetadata*>& PageEntries() override { return page; }
  std::string PageCursor() override { return "c"; }
  bool PageHasMore() override { return false; }
  FileMetadata* ParseEntry(const std::vector<char>&) override { return new FileMetadata; }

  std::vector<FileMetadata*> page;
};

// Finishes at Start with `outcome` when `finish_at_start`, else stays in
// flight until aborted. Reports synchronously, as a connection may.
class FakeTransfer : public quillstone::dropbox::Transfer {
 public:
  explicit FakeTransfer(std::vector<std::string>* log) : log_(log) {}
  void Start(const FileToSync& file, const Headers&, const std::string&, void* user) override {
    log_->push_back("start " + file.local_path);
    path_ = file.local_path;
    user_ = user;
    Downloader::StatusInfo started{};
    started.state = Downloader::kStateInProgress;
    Set(started);
    if (file.local_path == fails) {
      Downloader::StatusInfo failed{};
      failed.state = Downloader::kStateFailed;
      failed.error = Downloader::kErrorStorage;
      Report(failed);
    } else if (finish_after_ms > 0) {
      Join();
      // Later than the transfers started after it: completions out of order.
      finisher_ = std::thread([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(finish_after_ms));
        if (GetStatus().state == Downloader::kStateInProgress) Report(outcome);
      });
    } else if (finish_at_start) {
      Report(outcome);
    }
  }
  Downloader::StatusInfo GetStatus() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
  }
  // Reports from a thread of its own, as a connection does: the caller may
  // hold the pipeline's lock.
  void Abort() override {
    if (GetStatus().state != Downloader::kStateInProgress || aborter_.joinable()) return;
    aborter_ = std::thread([this] {
      Downloader::StatusInfo aborted{};
      aborted.state = Downloader::kStateAborted;
      Report(aborted);
    });
  }
  void Join() {
    if (aborter_.joinable()) aborter_.join();
    if (finisher_.joinable()) finisher_.join();
  }
  std::vector<char> ErrorBody(const FileToSync&) override { return {'x'}; }
  void Cleanup(const FileToSync& file) override { log_->push_back("put " + file.local_path); }
  void CleanupOnErr(const FileToSync& file) override { log_->push_back("drop " + file.local_path); }
  std::string LastFile() override { return path_; }

  quillstone::dropbox::DownloadPipeline* pipeline = nullptr;
  bool finish_at_start = true;
  int finish_after_ms = 0;
  std::string fails;  // the file whose transfer fails at once
  Downloader::StatusInfo outcome{
      Downloader::kStateDone, Downloader::kErrorNone, 0, 200, 0, "", "", ""};

 private:
  void Set(const Downloader::StatusInfo& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
  }
  void Report(const Downloader::StatusInfo& status) {
    Set(status);
    pipeline->NotifyDownloaderStatus(user_);
  }
  std::vector<std::string>* log_;
  std::string path_;
  void* user_ = nullptr;
  Downloader::StatusInfo status_{};
  std::thread aborter_;
  std::thread finisher_;
  std::mutex mutex_;  // status_ is read by the pipeline while the aborter sets it
};

// A pipeline of `slots` fake transfers over one log.
struct FakePipeline {
  explicit FakePipeline(size_t slots = 2) {
    pthread_mutex_init(&mutex, nullptr);
    pthread_cond_init(&cond, nullptr);
    std::vector<quillstone::dropbox::Transfer*> transfers;
    std::vector<int*> state_of;
    for (size_t i = 0; i < slots; ++i) {
      fakes.emplace_back(new FakeTransfer(&log));
      transfers.push_back(fakes.back().get());
      state_of.push_back(&states[i]);
    }
    pipeline.reset(new quillstone::dropbox::DownloadPipeline(service, transfers, state_of, &mutex,
                                                             &cond, running, folder));
    for (auto& fake : fakes) fake->pipeline = pipeline.get();
  }
  ~FakePipeline() {
    for (auto& fake : fakes) fake->Join();
    pipeline.reset();
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
  }
  std::vector<std::string> log;
  FakeService service;
  std::vector<std::unique_ptr<FakeTransfer>> fakes;
  int states[16] = {};
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  std::atomic<bool> running{true};
  std::string folder = "/sync";
  std::unique_ptr<quillstone::dropbox::DownloadPipeline> pipeline;
};

}  // namespace qs_test
