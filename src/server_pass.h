// The server pass of a run: the listing since the stored cursor, applied
// entry by entry to the local tree and the store, with the downloads it
// needs.
//
// Rows are written entry by entry and the cursor once per page, after the
// page's entries; a file is in place before its row. Deleted entries remove
// the local item, folders are built, files are fetched through the
// DownloadPipeline, which this pass plans for (FetchPlanner).
//
// Threads: the sync thread only. The pass owns nothing: the engine hands in
// the run's context, the service, the pipeline and where to note that the
// run changed something locally.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <tuple>

#include "download_pipeline.h"
#include "file_info.h"
#include "sync_env.h"

namespace quillstone {
namespace dropbox {

class ServerPass : public FetchPlanner {
 public:
  ServerPass(const RunContext& run, SyncService& service, DownloadPipeline& pipeline,
             bool* changed);

  // The whole pass; 0, or the first code that ends it (kRestrictedContent
  // when the rest went well but a file was refused).
  int Run();

  std::string PathLowerToPath(FileMetadata* entry);
  int RemoveDirectory(FileMetadata* entry);
  int RemoveFile(FileMetadata* entry);
  int CreateDirectory(FileMetadata* entry);

  // Where a listed file goes locally and whether it must be fetched, by the
  // store's lookups alone; changes nothing. `file.path` is the path that
  // PathLowerToPath gave.
  struct FilePlan {
    enum Kind { kNoParent, kUnchanged, kFetch, kStoreError } kind = kNoParent;
    std::string folder;  // the stored parent folder, "" for the root
    std::string path;    // the local path, in the local case
    int row = 0;         // the exact lookup's result: 0, QS_NOT_FOUND or an error
    FileInfo info;       // the row found when `row` is 0
    bool found = false;  // a row matched without regard to case
  };
  FilePlan PlanFile(const FileMetadata& file);
  bool PlanFetch(const FileMetadata& entry, std::string* folder, std::string* local_path) override;

  // 1 when the entry is to be recorded (fetched, or already current), with
  // *is_new for a new row; the download's code in *err.
  int AddOrModifyFile(FileMetadata* file, bool* is_new, int* err);
  int DownloadFile(FileMetadata* file);
  // Fetches with up to two retries after a lost network, reporting progress;
  // the code and the target's relative path.
  std::tuple<int, std::string> DownloadFile(const std::string& id, const std::string& server_path,
                                            const std::string& local_path, uint64_t size);
  // A progress reporter for `file`: (status, full path or "", code).
  std::function<void(const utilities::Downloader::StatusInfo&, const std::string&, int)>
  StatusUpdater(utilities::DownloadStatus::File file);

 private:
  const RunContext& run_;  // the engine's, so the profile set before a run reaches here
  SyncService& service_;
  DownloadPipeline& pipeline_;
  bool* changed_;
};

}  // namespace dropbox
}  // namespace quillstone
