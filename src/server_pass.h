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
#include <sys/types.h>

#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "download_pipeline.h"
#include "file_info.h"
#include "sync_env.h"

namespace quillstone {
namespace dropbox {

// `path` (a store path below `folder`) renamed to say it is a conflicted
// copy of today, as "/a/b (conflicted copy 2026-11-24).txt", with a number
// added when that name is taken; a folder's name keeps its dots.
std::string ConflictedCopyPath(const std::string& folder, const std::string& path, bool is_folder);

class ServerPass : public FetchPlanner {
 public:
  ServerPass(const RunContext& run, SyncService& service, DownloadPipeline& pipeline,
             bool* changed);

  // The whole pass; 0, or the first code that ends it (kRestrictedContent
  // when the rest went well but a file was refused).
  int Run();

  std::string PathLowerToPath(FileMetadata* entry);
  int RemoveDirectory(FileMetadata* entry);
  // 1 when a file was unlinked; in the safe profile only a file unchanged
  // since its row is.
  int RemoveFile(FileMetadata* entry);
  // 1 when a folder was built, 0 when none was needed or the path is
  // refused; -1 in the safe profile when it could not be made.
  int CreateDirectory(FileMetadata* entry);

  // Safe profile. Removes the file at `path` (a store path) when its content
  // is still the one its row records; true when it is gone.
  bool RemoveIfUnchanged(const std::string& path);
  // Removes the folder at `path` as far as that loses nothing: files
  // unchanged since their rows, then the folders left empty; links are
  // neither followed nor removed. True when the whole folder is gone.
  bool RemoveUnchangedTree(const std::string& path);
  // Moves whatever is at `path` aside under a conflicted-copy name unless
  // it is absent or of `kind` (S_IFDIR, S_IFREG), and drops its rows so it
  // goes up as new; an empty folder is removed instead. False when it is
  // still in the way.
  bool MoveAsideUnless(const std::string& path, mode_t kind);

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
  // A listing from the start over stored rows (safe profile): the stored
  // paths it has held so far.
  struct FullListing {
    bool active = false;
    std::set<std::string> files;
    std::set<std::string> folders;
  };
  bool StoreHasRows();
  // Something listed could not be applied and the cursor passes it: the
  // next run lists everything anew.
  void RelistLater();
  // Below `folder`, the rows that `full` lacks go, and their local items as
  // far as RemoveIfUnchanged and RemoveUnchangedTree allow.
  void DropUnlisted(const std::string& folder, const FullListing& full,
                    std::vector<std::string>* removed_files,
                    std::vector<std::string>* removed_folders);

  const RunContext& run_;  // the engine's, so a profile set after construction is seen
  SyncService& service_;
  DownloadPipeline& pipeline_;
  bool* changed_;
  bool relist_later_ = false;  // RelistLater was called in this run
};

}  // namespace dropbox
}  // namespace quillstone
