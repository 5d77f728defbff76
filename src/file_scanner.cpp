#define QS_SOURCE_NAME "src/file_scanner"

#include "file_scanner.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "arbour_utilities.h"
#include "filemetadatamanager.h"
#include "qs_log.h"
#include "server_path.h"
#include "tessera.h"

// Without large-file support a 32-bit readdir fails with EOVERFLOW on 64-bit
// directory offsets and inode numbers; a walk that ends early there would take
// every unseen file for a local deletion.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "build with -D_FILE_OFFSET_BITS=64");

namespace quillstone {
namespace dropbox {

namespace {

// The store pages its listings; one page this large holds any folder.
const int kListingLimit = 10000;

const char kStoreFolder[] = ".dropbox";

// Leftovers of an interrupted download: the partial data and its record.
bool IsDownloadLeftover(const char* name) {
  const char* dot = std::strrchr(name, '.');
  return dot != nullptr &&
         (std::strcmp(dot, ".downloading") == 0 || std::strcmp(dot, ".progress") == 0);
}

// Walks two byte-ordered lists at once; `same` gets the pairs of equal keys,
// `only_a` and `only_b` the rest.
template <typename A, typename B, typename KeyA, typename KeyB, typename Same, typename OnlyA,
          typename OnlyB>
void Merge(std::vector<A>& a, std::vector<B>& b, KeyA key_a, KeyB key_b, Same same, OnlyA only_a,
           OnlyB only_b) {
  size_t i = 0;
  size_t j = 0;
  while (i < a.size() && j < b.size()) {
    const std::string& ka = key_a(a[i]);
    const std::string& kb = key_b(b[j]);
    if (ByteOrderLess(ka, kb)) {
      only_a(a[i++]);
    } else if (ByteOrderLess(kb, ka)) {
      only_b(b[j++]);
    } else {
      same(a[i++], b[j++]);
    }
  }
  for (; i < a.size(); ++i) only_a(a[i]);
  for (; j < b.size(); ++j) only_b(b[j]);
}

// Only content can be sent: a FIFO, socket or device would block or never
// end when read. A link counts by its target; a broken one, or a link to a
// folder, stays a file as before.
bool IsSendable(const std::string& full, unsigned char type) {
  if (type == DT_REG) return true;
  if (type == DT_FIFO || type == DT_SOCK || type == DT_CHR || type == DT_BLK) return false;
  struct stat st;
  if (stat(full.c_str(), &st) != 0) return true;
  return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode);
}

}  // namespace

bool ByteOrderLess(const std::string& a, const std::string& b) {
  const int r = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
  return r != 0 ? r < 0 : a.size() < b.size();
}

FileScanner::FileScanner()
    : fm_manager_(nullptr),
      sync_callback_(nullptr),
      skipped_(0),
      keep_unreadable_(false),
      stored_files_seen_(0),
      delete_download_leftovers_(true) {}

int FileScanner::Scan(const std::string& root) {
  root_ = root;
  skipped_ = 0;
  stored_files_seen_ = 0;
  // Without a store RecurseScan reports the fault; there is nothing to
  // prepare then.
  if (fm_manager_ != nullptr) fm_manager_->InitRootFolder();
  return RecurseScan("");
}

int FileScanner::RecurseScan(const std::string& path) {
  if (sync_callback_ == nullptr) {
    QS_LOG_CONDITION("sync_callback_", "1");
    return 1;
  }
  if (fm_manager_ == nullptr) {
    QS_LOG_CONDITION("fm_manager_", "2");
    return 2;
  }
  std::vector<std::string> local_dirs;
  std::vector<FileInfo> local_files;
  if (ScanDirectory(path, &local_dirs, &local_files) != 0) {
    ++skipped_;
    if (path.empty()) return 2;  // no sync folder to compare with
    return 0;                    // the folder and all below it wait
  }

  // A failed listing leaves the stored list empty: everything reads as
  // added, which the engine resolves against the service.
  std::vector<FileInfo> stored_files;
  (void)fm_manager_->GetFilesByDir(path, 0, kListingLimit, &stored_files);
  stored_files_seen_ += static_cast<int>(stored_files.size());
  FindFileDelta(local_files, stored_files);
  if (keep_unreadable_) LeaveOutUnreadable(path);
  int r = sync_callback_->SyncFiles(path + "/", file_delta_);
  if (r != 0) return r;

  std::vector<std::string> stored_dirs;
  (void)fm_manager_->GetFoldersByDir(path, 0, kListingLimit, &stored_dirs);
  FindDirDelta(local_dirs, stored_dirs);
  // A folder that could not be handled is tried again next run; the walk
  // goes on into the subfolders regardless.
  (void)sync_callback_->SyncDirs(dir_delta_, &local_dirs);

  // By index: SyncDirs may have replaced or appended entries.
  for (size_t i = 0; i < local_dirs.size(); ++i) {
    r = RecurseScan(local_dirs[i]);
    if (r != 0) return r;
  }
  return 0;
}

int FileScanner::ScanDirectory(const std::string& path, std::vector<std::string>* dirs,
                               std::vector<FileInfo>* files) {
  const std::string full = root_ + path;
  DIR* dir = opendir(full.c_str());
  if (dir == nullptr) {
    if (!keep_unreadable_) return 0;  // unreadable or gone: an empty folder
    // A folder deleted during the walk is deleted; one that cannot be
    // opened, or a sync folder that went away with its card, says nothing.
    struct stat info;
    if (errno == ENOENT && !path.empty() && stat(root_.c_str(), &info) == 0) return 0;
    QS_LOG(kLogError, "Skipped [%s]: the folder cannot be read (%d)", full.c_str(), errno);
    return -1;
  }
  while (struct dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    // The service cannot store such a name: nothing of it or below it goes up.
    if (!IsValidUtf8(name)) {
      QS_LOG(kLogError, "Skipped [%s/%s]: the name is not UTF-8", full.c_str(), name);
      ++skipped_;
      continue;
    }
    if (entry->d_type == DT_DIR) {
      if (std::strcmp(name, kStoreFolder) != 0) dirs->push_back(path + "/" + name);
      continue;
    }
    // Links and entries of unknown type count as files.
    if (delete_download_leftovers_ && IsDownloadLeftover(name)) {
      (void)te_unlink((full + "/" + name).c_str());  // unlisted either way
      continue;
    }
    if (!IsSendable(full + "/" + name, entry->d_type)) {
      QS_LOG(kLogError, "Skipped [%s/%s]: not a regular file", full.c_str(), name);
      ++skipped_;
      continue;
    }
    FileInfo info;
    info.name = name;
    info.md5 = utilities::ArbourUtilities::QuickMD5(full + "/" + name);
    files->push_back(std::move(info));
  }
  closedir(dir);
  std::sort(files->begin(), files->end(),
            [](const FileInfo& a, const FileInfo& b) { return ByteOrderLess(a.name, b.name); });
  std::sort(dirs->begin(), dirs->end(), ByteOrderLess);
  return 0;
}

void FileScanner::LeaveOutUnreadable(const std::string& path) {
  auto unreadable = [this, &path](const FileInfo& f) {
    if (f.md5 != utilities::kUnreadableDigest) return false;
    QS_LOG(kLogError, "Skipped [%s%s/%s]: the file cannot be read", root_.c_str(), path.c_str(),
           f.name.c_str());
    ++skipped_;
    return true;
  };
  for (auto* list : {&file_delta_.added, &file_delta_.modified}) {
    list->erase(std::remove_if(list->begin(), list->end(), unreadable), list->end());
  }
}

int FileScanner::FindFileDelta(std::vector<FileInfo>& local, std::vector<FileInfo>& stored) {
  file_delta_.added.clear();
  file_delta_.modified.clear();
  file_delta_.deleted.clear();
  auto name = [](const FileInfo& f) -> const std::string& { return f.name; };
  Merge(
      local, stored, name, name,
      [this](FileInfo& l, FileInfo& s) {
        if (l.md5 == s.md5) return;
        s.md5 = l.md5;
        file_delta_.modified.push_back(s);
      },
      [this](FileInfo& l) { file_delta_.added.push_back(l); },
      [this](FileInfo& s) { file_delta_.deleted.push_back(s); });
  return 0;
}

int FileScanner::FindDirDelta(std::vector<std::string>& local, std::vector<std::string>& stored) {
  dir_delta_.added.clear();
  dir_delta_.deleted.clear();
  auto self = [](const std::string& p) -> const std::string& { return p; };
  Merge(
      local, stored, self, self, [](std::string&, std::string&) {},
      [this](std::string& l) { dir_delta_.added.push_back(l); },
      [this](std::string& s) { dir_delta_.deleted.push_back(s); });
  return 0;
}

}  // namespace dropbox
}  // namespace quillstone
