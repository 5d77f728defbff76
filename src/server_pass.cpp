#define QS_SOURCE_NAME "src/server_pass"

#include "server_pass.h"

#include <dirent.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "arbour_utilities.h"
#include "dropboxsynchronizer.h"
#include "qs_codes.h"
#include "qs_log.h"
#include "readstats.h"
#include "retry_wait.h"
#include "server_path.h"
#include "split_path.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Downloader;
using utilities::DownloadStatus;

namespace {

// Asks the next run to list everything anew (safe profile): something listed
// could not be applied and the cursor has passed it.
const char kRelistKey[] = "relist";

// True when `full` exists and is of `kind` (S_IFDIR, S_IFREG), links not followed.
bool IsKind(const std::string& full, mode_t kind) {
  struct stat st;
  return lstat(full.c_str(), &st) == 0 && (st.st_mode & S_IFMT) == kind;
}

}  // namespace

std::string ConflictedCopyPath(const std::string& folder, const std::string& path, bool is_folder) {
  char date[16] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) (void)strftime(date, sizeof date, "%Y-%m-%d", &local);
  std::string stem = path, ext;
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (!is_folder && dot != std::string::npos && dot > slash + 1) {
    stem = path.substr(0, dot);
    ext = path.substr(dot);
  }
  for (int n = 1;; ++n) {
    std::string candidate = stem + " (conflicted copy " + date +
                            (n > 1 ? " " + std::to_string(n) : std::string()) + ")" + ext;
    struct stat st;
    if (lstat((folder + candidate).c_str(), &st) != 0) return candidate;
  }
}

ServerPass::ServerPass(const RunContext& run, SyncService& service, DownloadPipeline& pipeline,
                       bool* changed)
    : run_(run), service_(service), pipeline_(pipeline), changed_(changed) {}

int ServerPass::Run() {
  FileMetadataManager& store = run_.store;
  DownloadStatus& status = run_.status;
  QS_LOG(kLogInfo, "Get cursor");
  // Classic: every page is asked for with the cursor of the start of the
  // pass: a listing of several pages repeats the first until a stop or an
  // error, and each run gains one page. The entries it repeats find their
  // rows and cost no transfer. Safe: each page with the cursor of the last.
  std::string cursor = store.GetCursor();
  FullListing full;
  if (run_.safe()) {
    std::string relist;
    if (store.GetParam(kRelistKey, &relist) == 0 && relist == "1") cursor.clear();
    full.active = cursor.empty() && StoreHasRows();
  }
  bool relisted = false;  // a reset or an unusable page restarts the listing once per run
  relist_later_ = false;
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
    for (int attempt = 1;
         run_.safe() && err == DropboxProtocol::kTooManyRequests &&
         WaitOutRetryAfter(service_.RetryAfter(), attempt, run_.running, "listing");
         ++attempt) {
      err = service_.ListPage(cursor);
    }
    if (run_.safe() && !relisted && !cursor.empty() &&
        (err == DropboxProtocol::kSuccess ? service_.PageCursor().empty()
                                          : service_.ListingWasReset())) {
      // A reset cursor, or a reply with no cursor at all: list from the start,
      // keeping the stored cursor until that listing has been applied.
      QS_LOG(kLogError, "Listing from the start after %s",
             err == DropboxProtocol::kSuccess ? "an unusable reply" : "a reset cursor");
      relisted = true;
      cursor.clear();
      full = FullListing();
      full.active = true;
      err = DropboxProtocol::kSuccess;
      continue;
    }
    if (err != DropboxProtocol::kSuccess) return err;
    if (run_.safe() && service_.PageCursor().empty()) return DropboxProtocol::kErrServer;
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
            if (run_.safe()) {
              (void)RemoveUnchangedTree(entry->path);
            } else {
              (void)RemoveDirectory(entry);
            }
            removed_folders.push_back(entry->path);
          }
          if (RemoveFile(entry) != 0) {
            QS_LOG(kLogNotice, "RemoveFile path = %s", entry->path.c_str());
            *changed_ = true;
          }
          removed_files.push_back(entry->path);
          NotifyFileBrowser();
        } else if (entry->is_folder) {
          QS_LOG(kLogNotice, "CreaterDirectory path = %s", entry->path.c_str());
          const int made = CreateDirectory(entry);
          if (made > 0) {
            *changed_ = true;
            // Written at once, so the files that follow find their parent.
            added_folders.push_back(entry->path);
            (void)store.AddFolders(added_folders);
            added_folders.clear();
          } else if (made < 0) {
            // Its files find no parent and are passed over: a later run lists
            // everything anew to fetch them once the folder can be made.
            NoteServerItemFailure();
            RelistLater();
          }
          if (full.active) {
            std::vector<std::string> rows;
            (void)store.GetFolderByPathIgnoreCase(entry->path, &rows);
            full.folders.insert(rows.begin(), rows.end());
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
          if (full.active) full.files.insert(entry->path);
        }
        pipeline_.EndEntry();
      }
      pipeline_.EndPage();
    }

    // Removals reach the disk before the rows and the cursor that forget
    // them: a power cut must not bring an item back as a new local file.
    size_t flushed = 0;  // of removed_files and removed_folders together
    auto flush_removals = [&]() {
      if (removed_files.size() + removed_folders.size() == flushed) return;
      flushed = removed_files.size() + removed_folders.size();
      for (const std::vector<std::string>* paths : {&removed_files, &removed_folders}) {
        for (const std::string& path : *paths) {
          emptied_folders.insert(run_.folder + GetFolderName(path));
        }
      }
      FlushFolders(emptied_folders);
      emptied_folders.clear();
    };
    if (!stopped && CanProceedOnError(err)) {
      if (!run_.safe()) {
        flush_removals();
        (void)store.SetCursor(service_.PageCursor());
      } else {
        cursor = service_.PageCursor();
        // A listing from the start over stored rows keeps the stored cursor
        // until its end, when the rows it lacks are settled.
        if (full.active && !service_.PageHasMore()) {
          DropUnlisted("", full, &removed_files, &removed_folders);
          if (!relist_later_) (void)store.RemoveParam(kRelistKey);
        }
        flush_removals();
        if (!full.active || !service_.PageHasMore()) (void)store.SetCursor(cursor);
      }
    }
    flush_removals();
    (void)store.RemoveFiles(removed_files);
    (void)store.RemoveFolders(removed_folders);

    if (CanProceedOnError(err) && !service_.PageHasMore()) {
      if (err == DropboxProtocol::kSuccess) err = deferred;
      return err;
    }
  }
}

void ServerPass::RelistLater() {
  relist_later_ = true;
  (void)run_.store.SetParam(kRelistKey, "1");
}

bool ServerPass::StoreHasRows() {
  std::vector<FileInfo> files;
  std::vector<std::string> folders;
  (void)run_.store.GetFilesByDir("", 0, 0, &files);
  (void)run_.store.GetFoldersByDir("", 0, 0, &folders);
  return !files.empty() || !folders.empty();
}

void ServerPass::DropUnlisted(const std::string& folder, const FullListing& full,
                              std::vector<std::string>* removed_files,
                              std::vector<std::string>* removed_folders) {
  std::vector<FileInfo> files;
  (void)run_.store.GetFilesByDir(folder, 0, 0, &files);
  for (const FileInfo& file : files) {
    const std::string path = folder + "/" + file.name;
    // A failed row stands for a file the service refused, which no listing holds.
    if (full.files.count(path) != 0 || file.status == FileMetadataManager::kStatusFailed) continue;
    QS_LOG(kLogNotice, "Not listed any more: %s", path.c_str());
    if (RemoveIfUnchanged(path)) *changed_ = true;
    removed_files->push_back(path);
  }
  std::vector<std::string> folders;
  (void)run_.store.GetFoldersByDir(folder, 0, 0, &folders);
  for (const std::string& sub : folders) {
    if (full.folders.count(sub) != 0) {
      DropUnlisted(sub, full, removed_files, removed_folders);
      continue;
    }
    QS_LOG(kLogNotice, "Not listed any more: %s", sub.c_str());
    if (RemoveUnchangedTree(sub)) *changed_ = true;
    removed_folders->push_back(sub);
  }
}

bool ServerPass::RemoveIfUnchanged(const std::string& path) {
  const std::string full = run_.folder + path;
  struct stat st;
  if (lstat(full.c_str(), &st) != 0) return false;
  FileInfo row;
  if (!S_ISREG(st.st_mode) || run_.store.GetFile(path, &row) != 0 ||
      utilities::ArbourUtilities::QuickMD5(full) != row.md5) {
    QS_LOG(kLogNotice, "Kept, changed since its row: %s", path.c_str());
    return false;
  }
  return unlink(full.c_str()) == 0;
}

bool ServerPass::RemoveUnchangedTree(const std::string& path) {
  if (!IsSafeServerPath(run_.folder, path, PathUse::kWrite)) return false;
  const std::string full = run_.folder + path;
  struct stat st;
  if (lstat(full.c_str(), &st) != 0) return true;  // gone already
  if (!S_ISDIR(st.st_mode)) return false;  // a link or a file in its place is not the folder
  std::vector<std::string> names;
  DIR* dir = opendir(full.c_str());
  if (dir == nullptr) return false;
  while (struct dirent* item = readdir(dir)) {
    const std::string name = item->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  (void)closedir(dir);
  bool emptied = true;
  for (const std::string& name : names) {
    const std::string child = path + "/" + name;
    if (lstat((run_.folder + child).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      emptied = RemoveUnchangedTree(child) && emptied;
    } else if (S_ISREG(st.st_mode)) {
      emptied = RemoveIfUnchanged(child) && emptied;
    } else {
      emptied = false;  // never followed, never removed
    }
  }
  return emptied && rmdir(full.c_str()) == 0;
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
  // Safe: a local edit the service has not seen stays, and without its row
  // goes up as a new file.
  if (run_.safe()) return RemoveIfUnchanged(entry->path) ? 1 : 0;
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
  const std::string full = run_.folder + entry->path;
  if (run_.safe() && !MoveAsideUnless(entry->path, S_IFDIR)) return -1;
  (void)te_buildpath((full + "/").c_str());
  if (run_.safe() && !IsKind(full, S_IFDIR)) {
    QS_LOG(kLogError, "Cannot create folder [%s]", entry->path.c_str());
    return -1;
  }
  return 1;
}

bool ServerPass::MoveAsideUnless(const std::string& path, mode_t kind) {
  const std::string full = run_.folder + path;
  struct stat st;
  if (lstat(full.c_str(), &st) != 0 || (st.st_mode & S_IFMT) == kind) return true;
  const bool was_folder = S_ISDIR(st.st_mode);
  // An empty folder holds nothing to keep; the server's deletions usually
  // emptied it just before.
  if (was_folder && rmdir(full.c_str()) == 0) {
    (void)run_.store.RemoveFolder(path);
    return true;
  }
  const std::string aside = ConflictedCopyPath(run_.folder, path, was_folder);
  if (rename(full.c_str(), (run_.folder + aside).c_str()) != 0) {
    QS_LOG(kLogError, "Cannot move [%s] aside", path.c_str());
    return false;
  }
  QS_LOG(kLogNotice, "Kept [%s] as [%s]: the server has the other kind", path.c_str(),
         aside.c_str());
  // Without rows the moved item goes up as new; a row left at the old path
  // would read as a local deletion of the server's item.
  if (was_folder) {
    (void)run_.store.RemoveFolder(path);
  } else {
    (void)run_.store.RemoveFile(path);
  }
  *changed_ = true;
  return true;
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
  // Something of the other kind in the way is moved aside on the entry's turn.
  struct stat st;
  if (run_.safe() && lstat((run_.folder + plan.path).c_str(), &st) == 0 && !S_ISREG(st.st_mode))
    return false;
  *folder = plan.folder;
  *local_path = plan.path;
  return true;
}

int ServerPass::AddOrModifyFile(FileMetadata* file, bool* is_new, int* err) {
  FilePlan plan = PlanFile(*file);
  if (plan.kind == FilePlan::kNoParent) return 0;
  file->path = plan.path;
  if (run_.safe() && plan.kind == FilePlan::kFetch && !MoveAsideUnless(file->path, S_IFREG)) {
    NoteServerItemFailure();
    RelistLater();
    return 0;
  }
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
