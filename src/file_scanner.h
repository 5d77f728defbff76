// The local half of a sync: a depth-first walk of the sync folder that
// compares each folder with what the metadata store remembers of it.
//
// The scanner owns no policy. For every folder it builds a file delta and a
// folder delta and hands them to an ISyncCallback, which decides what goes
// to the service. A file is judged by its name and its content digest only;
// size and time are never read.
//
// Threads: used on the sync thread only; holds no lock. The tree is not
// frozen, so a file that changes during the walk is seen as it is when its
// digest is taken.
#pragma once

#include <string>
#include <vector>

#include "file_info.h"

namespace quillstone {
namespace dropbox {

class FileMetadataManager;

// The files of one folder that differ from the store.
struct FileSystemFileDelta {
  std::vector<FileInfo> added;     // on disk, not stored; entries from the scan
  std::vector<FileInfo> modified;  // both, digests differ; store rows carrying the local md5
  std::vector<FileInfo> deleted;   // stored, not on disk; entries from the store
};

// The direct subfolders of one folder that differ from the store, as store
// paths ("/a/b").
struct FileSystemDirDelta {
  std::vector<std::string> added;
  std::vector<std::string> deleted;
};

// What the sync engine does with the deltas of one folder.
class ISyncCallback {
 public:
  virtual ~ISyncCallback() {}
  // `dir` ends in a slash: "/" for the root, "/a/" below it. A non-zero
  // result ends the walk and becomes the result of Scan.
  virtual int SyncFiles(const std::string& dir, FileSystemFileDelta& delta) = 0;
  // May rewrite `local_dirs`, the folders the walk is about to enter: a
  // folder moved to another name is replaced, one that must be visited
  // after all is appended. Its result is not looked at.
  virtual int SyncDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) = 0;
};

class FileScanner {
 public:
  FileScanner();

  // Walks all of `root` (the sync folder, no trailing slash). 0; 1 without a
  // callback, 2 without a store (as RecurseScan); or the first non-zero
  // result of SyncFiles.
  int Scan(const std::string& root);
  // One folder, given as a store path ("" for the root), and everything
  // below it.
  int RecurseScan(const std::string& path);
  // Lists one folder: subfolders as store paths, files with their digests,
  // both in byte order. Deletes the leftovers of interrupted downloads (unless
  // told not to) and never lists a ".dropbox" folder. Leaves out, logs and counts in skipped_
  // what cannot be sent: a FIFO, socket or device (also behind a link), and a
  // name that is not UTF-8. A folder that cannot be opened lists as empty:
  // 0, or -1 when keep_unreadable_ is set.
  int ScanDirectory(const std::string& path, std::vector<std::string>* dirs,
                    std::vector<FileInfo>* files);
  // Takes out of file_delta_'s added and modified lists the files of folder
  // `path` that could not be read; their rows, if any, stay as they are.
  void LeaveOutUnreadable(const std::string& path);
  // Merge of two byte-ordered lists into file_delta_ / dir_delta_. `stored`
  // entries found modified get the local digest. Always 0.
  int FindFileDelta(std::vector<FileInfo>& local, std::vector<FileInfo>& stored);
  int FindDirDelta(std::vector<std::string>& local, std::vector<std::string>& stored);

  FileMetadataManager* fm_manager_;  // not owned; set before Scan
  FileSystemFileDelta file_delta_;   // of the last FindFileDelta
  FileSystemDirDelta dir_delta_;     // of the last FindDirDelta
  ISyncCallback* sync_callback_;     // not owned; set before Scan
  std::string root_;                 // the sync folder, no trailing slash
  int skipped_;                      // entries left out by the last Scan
  // When set, what cannot be read is left out of the walk instead of reading
  // as empty or changed: a folder that cannot be opened keeps its rows and is
  // not entered, an unreadable file keeps its row, each counted in skipped_;
  // a sync folder that cannot be read, or vanishes, fails the Scan with 2.
  bool keep_unreadable_;
  int stored_files_seen_;  // file rows of the folders the last Scan walked
  // Clear when downloads keep their partial data under the store's folder:
  // then such names are the user's files like any other.
  bool delete_download_leftovers_;
};

// Plain ascending byte order, shorter first on a common prefix: the order in
// which the store lists names and paths, which the merge relies on.
bool ByteOrderLess(const std::string& a, const std::string& b);

}  // namespace dropbox
}  // namespace quillstone
