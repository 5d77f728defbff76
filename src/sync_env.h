// The seam between the sync engine's passes and the world outside them: the
// service requests the passes make (SyncService) and the download
// connections the pipeline drives (Transfer). The engine hands in adapters
// over its own protocol object and downloaders; unit tests hand in fakes, so
// a pass or the pipeline runs in-process without a service.
//
// Threads: every call comes from the sync thread. A Transfer reports on a
// thread of its own, by calling its owner's NotifyDownloaderStatus with the
// `user` value given to Start.
#pragma once

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "download_status.h"
#include "downloader.h"
#include "dropboxprotocol.h"
#include "file_metadata.h"
#include "filemetadatamanager.h"
#include "sync_profile.h"
#include "transfer_board.h"

namespace quillstone {
namespace dropbox {

using Headers = std::map<std::string, std::string>;

// The service calls of the passes, with the protocol's result codes.
class SyncService {
 public:
  virtual ~SyncService() = default;
  // Addresses of content requests; the keys they need are set in *headers.
  virtual std::string DownloadUrl(const std::string& path, Headers* headers) = 0;
  virtual std::string UploadUrl(const std::string& path, Headers* headers) = 0;
  virtual std::string ChunkUrl(const std::string& path, Headers* headers,
                               const std::string& upload_id, int64_t offset, bool finish) = 0;
  // The result code of an HTTP answer that came through another channel.
  virtual int ResponseCode(long http_status, const std::vector<char>& body) = 0;
  virtual int CreateFolder(const std::string& path) = 0;
  // Creates several folders in one request; see DropboxProtocol::CreateFolders.
  // Where that is not served, one request each.
  virtual int CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes) {
    codes->clear();
    for (const std::string& path : paths) codes->push_back(CreateFolder(path));
    return DropboxProtocol::kSuccess;
  }
  // A file or a folder; a non-empty `parent_rev` deletes a file only at
  // that revision.
  virtual int Delete(const std::string& path, const std::string& parent_rev) = 0;
  // After a request gave kTooManyRequests: the seconds the service asked to
  // wait, 0 when it did not say.
  virtual int RetryAfter() = 0;
  // The address of a session start that carries a whole file and closes the
  // session; "" where sessions cannot be batched.
  virtual std::string SessionStartUrl(Headers* headers) {
    (void)headers;
    return std::string();
  }
  // Commits closed sessions in one request; see
  // DropboxProtocol::FinishUploadBatch.
  virtual int FinishBatch(const std::vector<DropboxProtocol::BatchEntry>& entries,
                          std::vector<DropboxProtocol::BatchResult>* results) {
    (void)entries;
    results->clear();
    return DropboxProtocol::kErrServer;
  }
  // What the server folder `path` directly holds; kNotFound when it is not
  // there.
  virtual int ListChildren(const std::string& path, std::vector<ServerChild>* children) = 0;
  // How the uploads that follow commit.
  virtual void SetCommitMode(const DropboxProtocol::CommitMode& mode) = 0;
  // The listing page after `cursor`. On 0 the three getters describe it; the
  // entries stay the service's until the next page.
  virtual int ListPage(const std::string& cursor) = 0;
  virtual const std::vector<FileMetadata*>& PageEntries() = 0;
  virtual std::string PageCursor() = 0;
  virtual bool PageHasMore() = 0;
  // After a failed ListPage: true when the service refused the cursor as
  // reset, so that only a listing from the start can go on.
  virtual bool ListingWasReset() { return false; }
  // The record of an upload reply, owned by the caller; throws
  // Json::Exception for a member of the wrong type.
  virtual FileMetadata* ParseEntry(const std::vector<char>& reply) = 0;
};

// One download connection: one transfer at a time, into the sync folder.
class Transfer {
 public:
  virtual ~Transfer() = default;
  // Returns at once; a failure to start shows as a final state, reported.
  virtual void Start(const utilities::FileToSync& file, const Headers& headers,
                     const std::string& folder, void* user) = 0;
  virtual utilities::Downloader::StatusInfo GetStatus() = 0;
  virtual void Abort() = 0;  // the final state is then kStateAborted
  virtual std::vector<char> ErrorBody(const utilities::FileToSync& file) = 0;
  // After kStateDone: puts the data at its target.
  virtual void Cleanup(const utilities::FileToSync& file) = 0;
  // After any other end: removes the partial data.
  virtual void CleanupOnErr(const utilities::FileToSync& file) = 0;
  // The target's path relative to the folder, as the transfer names it.
  virtual std::string LastFile() = 0;
};

// What every pass of a run shares; owned by the engine.
struct RunContext {
  FileMetadataManager& store;
  utilities::DownloadStatus& status;
  const std::string& folder;         // the sync folder, no trailing slash
  const std::atomic<bool>& running;  // cleared to ask the run to stop
  // Where the profiles differ, the pass asks this at the point of difference;
  // the engine sets it before each run.
  SyncProfile profile = SyncProfile::kClassic;
  bool safe() const { return profile == SyncProfile::kSafe; }
  // Where the transfers in flight are shown; null shows nothing.
  TransferBoard* board = nullptr;
  // Transfers a run may keep in flight at once, 1 to kMaxTransfers; the
  // engine sets it from the setting "transfers".
  int transfers = 1;
};

// The adapters the engine uses; they own nothing.
class ProtocolService : public SyncService {
 public:
  explicit ProtocolService(DropboxProtocol& protocol) : protocol_(protocol) {}
  std::string DownloadUrl(const std::string& path, Headers* headers) override;
  std::string UploadUrl(const std::string& path, Headers* headers) override;
  std::string ChunkUrl(const std::string& path, Headers* headers, const std::string& upload_id,
                       int64_t offset, bool finish) override;
  int ResponseCode(long http_status, const std::vector<char>& body) override;
  int CreateFolder(const std::string& path) override;
  int CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes) override;
  int Delete(const std::string& path, const std::string& parent_rev) override;
  int RetryAfter() override;
  std::string SessionStartUrl(Headers* headers) override;
  int FinishBatch(const std::vector<DropboxProtocol::BatchEntry>& entries,
                  std::vector<DropboxProtocol::BatchResult>* results) override;
  int ListChildren(const std::string& path, std::vector<ServerChild>* children) override;
  void SetCommitMode(const DropboxProtocol::CommitMode& mode) override;
  int ListPage(const std::string& cursor) override;
  const std::vector<FileMetadata*>& PageEntries() override;
  std::string PageCursor() override;
  bool PageHasMore() override;
  bool ListingWasReset() override;
  FileMetadata* ParseEntry(const std::vector<char>& reply) override;

 private:
  DropboxProtocol& protocol_;
};

class DownloaderTransfer : public Transfer {
 public:
  explicit DownloaderTransfer(utilities::Downloader& downloader) : downloader_(downloader) {}
  void Start(const utilities::FileToSync& file, const Headers& headers, const std::string& folder,
             void* user) override;
  utilities::Downloader::StatusInfo GetStatus() override;
  void Abort() override;
  std::vector<char> ErrorBody(const utilities::FileToSync& file) override;
  void Cleanup(const utilities::FileToSync& file) override;
  void CleanupOnErr(const utilities::FileToSync& file) override;
  std::string LastFile() override;

 private:
  utilities::Downloader& downloader_;
};

// Tells the file browser that a folder's content has changed.
void NotifyFileBrowser();

// False when the sync folder `folder` and its store are no longer on one
// file system, or the store is gone: the card went away under a run, or
// another file system was mounted on the folder. What such a folder lacks
// was never seen, not deleted.
bool FolderHoldsItsStore(const std::string& folder);

// Makes the removals and renames in each of `folders` (full paths) durable.
// A removal that a power cut undid while the store already forgot the item
// would bring the item back as a new local file. Failures are ignored: a
// folder that is gone has nothing left to flush.
void FlushFolders(const std::set<std::string>& folders);

// The stored folders that match `parent` without regard to case; the root
// for the empty text.
std::vector<std::string> FoldersOfParent(FileMetadataManager& store, const std::string& parent);

}  // namespace dropbox
}  // namespace quillstone
