#define QS_SOURCE_NAME "src/server_pass"

#include "server_pass.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "arbour_utilities.h"
#include "dropboxsynchronizer.h"
#include "qs_codes.h"
#include "qs_log.h"
#include "readstats.h"
#include "server_path.h"
#include "split_path.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Downloader;
using utilities::DownloadStatus;

ServerPass::ServerPass(const RunContext& run, SyncService& service, DownloadPipeline& pipeline,
                       bool* changed)
    : run_(run), service_(service), pipeline_(pipeline), changed_(changed) {}

int ServerPass::Run() {
  FileMetadataManager& store = run_.store;
  DownloadStatus& status = run_.status;
  QS_LOG(kLogInfo, "Get cursor");
  // Every page is asked for with the cursor of the start of the pass: a
  // listing of several pages repeats the first until a stop or an error, and
  // each run gains one page. The entries it repeats find their rows and cost
  // no transfer.
  const std::string cursor = store.GetCursor();
  *changed_ = false;
  status.SetProgressStatus(DownloadStatus::kServerChanges);
  StatUtils_FreeStatList();
  int err = DropboxProtocol::kSuccess;
  int deferred = DropboxProtocol::kSuccess;
  int files_done = 0;
  std::vector<DownloadStatus::File> file_list;
  std::vector<std::string> removed_files;
  std::vector<std::string> removed_folders;
  std::vector<std::string> added_folders;
  std::set<std::string> emptied_folders;  // flushed before the page's rows change

  for (;;) {
    if (!CanProceedOnError(err)) return err;
    err = service_.ListPage(cursor);
    if (err != DropboxProtocol::kSuccess) return err;
    QS_LOG(kLogInfo, "Process Delta");

    removed_files.clear();
    removed_folders.clear();
    added_folders.clear();
    emptied_folders.clear();
    std::vector<FileMetadata*> entries = service_.PageEntries();
    // Grown to the page at once rather than by doubling, which would leave
    // up to half of a large list's room unused for the rest of the run.
    const size_t listed = file_list.size() + entries.size();
    if (listed > file_list.capacity())
      file_list.reserve(std::max(listed, 2 * file_list.capacity()));
    for (FileMetadata* entry : entries) {
      if (entry != nullptr && !entry->is_deleted && !entry->is_folder) {
        file_list.emplace_back(entry->id, entry->name, 0);
      }
    }
    status.SetFileList(file_list);
    status.SetTotalProgressStatus(static_cast<int>(file_list.size()), files_done, 0, 0);

    bool stopped = false;
    if (entries.empty()) {
      err = DropboxProtocol::kSuccess;
    } else {
      pipeline_.BeginPage(&entries, this);
      for (size_t k = 0; k < entries.size(); ++k) {
        FileMetadata* entry = entries[k];
        if (!run_.running) {
          err = DropboxProtocol::kStopped;
          stopped = true;
          break;
        }
        if (!CanProceedOnError(err)) break;
        if (entry == nullptr) continue;
        pipeline_.BeginEntry(k);
        QS_LOG(kLogInfo, "Process %s", entry->path_lower.c_str());
        if (!IsSafeServerEntry(*entry)) {
          err = DropboxProtocol::kFail;  // the page ends here, and no cursor passes it
          break;
        }
        entry->path = PathLowerToPath(entry);

        if (entry->is_deleted) {
          std::vector<std::string> folders;
          (void)store.GetFolderByPathIgnoreCase(entry->path_lower, &folders);
          if (!folders.empty()) {
            QS_LOG(kLogNotice, "RemoveDirectory path = %s", entry->path.c_str());
            *changed_ = true;
            entry->path = folders[0];
            (void)RemoveDirectory(entry);
            removed_folders.push_back(entry->path);
            emptied_folders.insert(run_.folder + GetFolderName(entry->path));
          }
          if (RemoveFile(entry) != 0) {
            QS_LOG(kLogNotice, "RemoveFile path = %s", entry->path.c_str());
            *changed_ = true;
            emptied_folders.insert(run_.folder + GetFolderName(entry->path));
          }
          removed_files.push_back(entry->path);
          NotifyFileBrowser();
        } else if (entry->is_folder) {
          QS_LOG(kLogNotice, "CreaterDirectory path = %s", entry->path.c_str());
          if (CreateDirectory(entry) != 0) {
            *changed_ = true;
            // Written at once, so the files that follow find their parent.
            added_folders.push_back(entry->path);
            (void)store.AddFolders(added_folders);
            added_folders.clear();
          }
        } else {
          DownloadStatus::File file(entry->id, entry->path, 0);
          status.SetCurrentProgressStatus(file);
          bool is_new = false;
          int r = AddOrModifyFile(entry, &is_new, &err);
          if (r != 0) {
            *changed_ = true;
            if (is_new) {
              (void)store.AddFile(entry);
              StatUtils_AddNewBookToStatList((run_.folder + entry->path).c_str());
            } else {
              (void)store.UpdateFile(entry);
            }
            DownloadStatus::File done = status.current_file_;
            done.progress = 100;
            status.SetCurrentProgressStatus(done);
            ++files_done;
            status.SetTotalProgressStatus(static_cast<int>(file_list.size()), files_done, 0, 0);
          }
          if (err != DropboxProtocol::kSuccess) {
            if (err == DropboxProtocol::kRestrictedContent) {
              // The row waits in the failed state: not retried by this pass,
              // and not taken for a local deletion by the next pass 1.
              (void)store.AddFile(entry);
              (void)store.SetFileStatus(entry->path, FileMetadataManager::kStatusFailed,
                                        FileMetadataManager::kErrorRestrictedContent);
            }
            deferred = err;
          }
        }
        pipeline_.EndEntry();
      }
      pipeline_.EndPage();
    }

    FlushFolders(emptied_folders);
    if (!stopped && CanProceedOnError(err)) (void)store.SetCursor(service_.PageCursor());
    (void)store.RemoveFiles(removed_files);
    (void)store.RemoveFolders(removed_folders);

    if (CanProceedOnError(err) && !service_.PageHasMore()) {
      if (err == DropboxProtocol::kSuccess) err = deferred;
      return err;
    }
  }
}

std::string ServerPass::PathLowerToPath(FileMetadata* entry) {
  // Looked up by the last element, which never matches a stored folder path;
  // the display path is what comes out, and the parent lookups of the
  // handlers put it into the local case.
  std::string base = GetBaseName(entry->path_lower);
  std::vector<std::string> folders;
  (void)run_.store.GetFolderByPathIgnoreCase(base, &folders);
  if (!folders.empty()) return folders[0] + "/" + entry->name;
  return entry->path_display;
}

int ServerPass::RemoveDirectory(FileMetadata* entry) {
  if (entry->path.empty()) return 1;  // never the sync folder itself
  if (!IsSafeServerPath(run_.folder, entry->path, PathUse::kRemoveTree)) return 0;
  std::string command = "rm -rf " + EscapeForShell(run_.folder) + EscapeForShell(entry->path);
  (void)system(command.c_str());
  return 0;
}

int ServerPass::RemoveFile(FileMetadata* entry) {
  std::string parent, leaf;
  utilities::SplitPath(entry->path, &parent, &leaf);
  std::vector<std::string> folders = FoldersOfParent(run_.store, parent);
  if (folders.empty()) return 0;
  entry->path = folders[0] + "/" + leaf;
  std::vector<FileInfo> files;
  (void)run_.store.GetFileByPathIgnoreCase(entry->path, &files);
  if (files.empty()) return 0;
  entry->path = folders[0] + "/" + files[0].name;
  if (!IsSafeServerPath(run_.folder, entry->path, PathUse::kWrite)) return 0;
  return unlink((run_.folder + entry->path).c_str()) == 0 ? 1 : 0;
}

int ServerPass::CreateDirectory(FileMetadata* entry) {
  std::vector<std::string> folders;
  (void)run_.store.GetFolderByPathIgnoreCase(entry->path, &folders);
  if (!folders.empty()) return 0;  // known, under any case
  std::string parent, leaf;
  utilities::SplitPath(entry->path, &parent, nullptr);
  leaf = entry->path.substr(parent.size());  // with its slash
  folders = FoldersOfParent(run_.store, parent);
  if (folders.empty()) {
    QS_LOG(kLogError, "path = %s\nsrc_path = %s", entry->path.c_str(), entry->path.c_str());
    return 0;
  }
  entry->path = folders[0] + leaf;
  if (!IsSafeServerPath(run_.folder, entry->path, PathUse::kWrite)) return 0;
  (void)te_buildpath((run_.folder + entry->path + "/").c_str());
  return 1;
}

ServerPass::FilePlan ServerPass::PlanFile(const FileMetadata& file) {
  FilePlan plan;
  std::string parent, leaf;
  utilities::SplitPath(file.path, &parent, &leaf);
  std::vector<std::string> folders = FoldersOfParent(run_.store, parent);
  if (folders.empty()) return plan;  // the parent is unknown locally
  plan.folder = folders[0];
  plan.path = plan.folder + "/" + leaf;

  std::vector<FileInfo> files;
  (void)run_.store.GetFileByPathIgnoreCase(plan.path, &files);
  if (files.empty()) {
    plan.kind = FilePlan::kFetch;
    return plan;
  }
  plan.found = true;
  // The local case of the file name wins.
  plan.path = plan.folder + "/" + files[0].name;
  plan.row = run_.store.GetFile(plan.path, &plan.info);
  if (plan.row == 0 && plan.info.rev == file.rev) {
    plan.kind = FilePlan::kUnchanged;
  } else if (plan.row != 0 && plan.row != QS_NOT_FOUND) {
    plan.kind = FilePlan::kStoreError;
  } else {
    plan.kind = FilePlan::kFetch;
  }
  return plan;
}

bool ServerPass::PlanFetch(const FileMetadata& entry, std::string* folder,
                           std::string* local_path) {
  if (!IsSafeServerEntry(entry)) return false;  // refused when its turn comes
  FileMetadata probe = entry;
  probe.path = PathLowerToPath(&probe);
  FilePlan plan = PlanFile(probe);
  if (plan.kind != FilePlan::kFetch) return false;
  if (!IsSafeServerPath(run_.folder, plan.path, PathUse::kWrite)) return false;
  *folder = plan.folder;
  *local_path = plan.path;
  return true;
}

int ServerPass::AddOrModifyFile(FileMetadata* file, bool* is_new, int* err) {
  FilePlan plan = PlanFile(*file);
  if (plan.kind == FilePlan::kNoParent) return 0;
  file->path = plan.path;
  if (!plan.found) {
    *err = DownloadFile(file);
    if (*err == DropboxProtocol::kSuccess) {
      *is_new = true;
      return 1;
    }
    return 0;
  }
  if (plan.kind == FilePlan::kUnchanged) {
    file->md5 = plan.info.md5;
    DownloadStatus::File current(file->id, file->path, 0);
    current.progress = 100;
    current.path = file->path;
    run_.status.SetCurrentProgressStatus(current);
    return 1;
  }
  if (plan.kind == FilePlan::kStoreError) return plan.row;

  QS_LOG(kLogNotice, "DownloadFile path = %s", file->path.c_str());
  *err = DownloadFile(file);
  if (*err == DropboxProtocol::kSuccess) {
    *is_new = (plan.row == QS_NOT_FOUND);
    return 1;
  }
  // 0, or -8 when the row was found only without regard to case: the caller
  // takes the latter for success and records the file.
  return plan.row;
}

int ServerPass::DownloadFile(FileMetadata* file) {
  int code;
  std::string name;
  std::tie(code, name) = DownloadFile(file->id, file->path_lower, file->path, file->size);
  if (code == DropboxProtocol::kSuccess) file->md5 = utilities::ArbourUtilities::QuickMD5(name);
  return code;
}

std::tuple<int, std::string> ServerPass::DownloadFile(const std::string& id,
                                                      const std::string& server_path,
                                                      const std::string& local_path,
                                                      uint64_t size) {
  if (!IsSafeServerPath(run_.folder, local_path, PathUse::kWrite)) {
    return std::make_tuple(static_cast<int>(DropboxProtocol::kFail), std::string());
  }
  DownloadStatus::File file(id, local_path, 0);
  auto update = StatusUpdater(file);
  auto on_status = [&update](const Downloader::StatusInfo& status) { update(status, "", 0); };
  int code;
  std::string name;
  std::tie(code, name) = pipeline_.Fetch(server_path, local_path, size, on_status);
  for (int attempt = 0; attempt < 2 && code == DropboxProtocol::kErrNoNetwork; ++attempt) {
    if (NetConnect(nullptr) != 0) break;
    auto retry_status = [&update](const Downloader::StatusInfo& status) { update(status, "", 0); };
    std::tie(code, name) = pipeline_.Fetch(server_path, local_path, size, retry_status);
  }
  std::string full = run_.folder + name;
  if (code == DropboxProtocol::kSuccess) NotifyFileBrowser();
  update(pipeline_.LastStatus(), full, code);
  return std::make_tuple(code, name);
}

std::function<void(const Downloader::StatusInfo&, const std::string&, int)>
ServerPass::StatusUpdater(DownloadStatus::File file) {
  DownloadStatus& channel = run_.status;
  return [&channel, file](const Downloader::StatusInfo& status, const std::string& path,
                          int code) mutable {
    file.progress = status.total_bytes < 1
                        ? 0
                        : static_cast<int>(static_cast<int64_t>(status.downloaded_bytes) * 100 /
                                           status.total_bytes);
    if (code != 0) file.status = 7;
    file.downloaded_bytes = status.downloaded_bytes;
    file.size = status.total_bytes;
    if (!path.empty()) file.path = path;
    QS_LOG(kLogInfo, "Set progress status for [%s] = [%d], size = [%d], downloaded_bytes = [%d]",
           file.path.c_str(), file.progress, status.total_bytes, status.downloaded_bytes);
    channel.SetCurrentProgressStatus(file);
  };
}

}  // namespace dropbox
}  // namespace quillstone
