#include "sync_env.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device_names.h"
#include "device_root.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

std::string ProtocolService::DownloadUrl(const std::string& path, Headers* headers) {
  return protocol_.GetDownloadUrlAndHeaders(path, headers);
}

std::string ProtocolService::UploadUrl(const std::string& path, Headers* headers) {
  return protocol_.GetUploadUrlAndHeaders(path, headers);
}

std::string ProtocolService::ChunkUrl(const std::string& path, Headers* headers,
                                      const std::string& upload_id, int64_t offset, bool finish) {
  return protocol_.GetChunkedUploadUrlAndHeaders(path, headers, upload_id, offset, finish);
}

int ProtocolService::ResponseCode(long http_status, const std::vector<char>& body) {
  return protocol_.processResponseCode(http_status, body);
}

int ProtocolService::CreateFolder(const std::string& path) { return protocol_.CreateFolder(path); }

int ProtocolService::CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes) {
  return protocol_.CreateFolders(paths, codes);
}

int ProtocolService::Delete(const std::string& path, const std::string& parent_rev) {
  return protocol_.DeleteFileFolder(path, parent_rev);
}

int ProtocolService::RetryAfter() { return protocol_.retry_after_; }

std::string ProtocolService::SessionStartUrl(Headers* headers) {
  return protocol_.GetSessionStartUrlAndHeaders(headers);
}

int ProtocolService::FinishBatch(const std::vector<DropboxProtocol::BatchEntry>& entries,
                                 std::vector<DropboxProtocol::BatchResult>* results) {
  return protocol_.FinishUploadBatch(entries, results);
}

int ProtocolService::ListChildren(const std::string& path, std::vector<ServerChild>* children) {
  return protocol_.ListChildren(path, children);
}

void ProtocolService::SetCommitMode(const DropboxProtocol::CommitMode& mode) {
  protocol_.commit_mode_ = mode;
}

int ProtocolService::ListPage(const std::string& cursor) { return protocol_.ReceiveDelta(cursor); }

const std::vector<FileMetadata*>& ProtocolService::PageEntries() { return protocol_.entries_; }

std::string ProtocolService::PageCursor() { return protocol_.cursor_; }

bool ProtocolService::PageHasMore() { return protocol_.has_more_; }

bool ProtocolService::ListingWasReset() { return protocol_.listing_reset_; }

FileMetadata* ProtocolService::ParseEntry(const std::vector<char>& reply) {
  return protocol_.parseMetadataEntry(std::vector<char>(reply));
}

void DownloaderTransfer::Start(const utilities::FileToSync& file, const Headers& headers,
                               const std::string& folder, void* user) {
  downloader_.ClearHeaders();
  for (const auto& header : headers) downloader_.AddHeader(header.first, header.second);
  (void)downloader_.Start(file, folder, user);  // a failure shows as a final state
}

utilities::Downloader::StatusInfo DownloaderTransfer::GetStatus() {
  return downloader_.GetStatus();
}

void DownloaderTransfer::Abort() { downloader_.Abort(nullptr); }

std::vector<char> DownloaderTransfer::ErrorBody(const utilities::FileToSync& file) {
  return downloader_.getErrorBody(file);
}

void DownloaderTransfer::Cleanup(const utilities::FileToSync& file) { downloader_.Cleanup(file); }

void DownloaderTransfer::CleanupOnErr(const utilities::FileToSync& file) {
  downloader_.CleanupOnErr(file);
}

std::string DownloaderTransfer::LastFile() { return downloader_.last_file_; }

bool FolderHoldsItsStore(const std::string& folder) {
  struct stat top, store;
  return stat(folder.c_str(), &top) == 0 && stat((folder + kStoreInFolder).c_str(), &store) == 0 &&
         top.st_dev == store.st_dev;
}

void FlushFolders(const std::set<std::string>& folders) {
  for (const std::string& folder : folders) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) continue;
    (void)fsync(fd);
    close(fd);
  }
}

void NotifyFileBrowser() {
  int task = FindTaskByAppName(utilities::DevicePath(kFileBrowserApp).c_str());
  if (task != -1) (void)SendEventTo(task, kFolderChangedEvent, 0, 0);
}

std::vector<std::string> FoldersOfParent(FileMetadataManager& store, const std::string& parent) {
  std::vector<std::string> folders;
  if (parent.empty()) {
    folders.push_back("");  // the root, which every tree has
  } else {
    (void)store.GetFolderByPathIgnoreCase(parent, &folders);
  }
  return folders;
}

}  // namespace dropbox
}  // namespace quillstone
