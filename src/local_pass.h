// The local pass of a run: what changed in the sync folder since the store
// last agreed with the service goes up.
//
// The scan reports each folder twice: its folder delta is applied at once
// (folders created and deleted on the service, so a folder exists there
// before its files), its file delta is only collected. When the whole tree is
// known, the file deltas are applied folder by folder in key order:
// deletions, additions, changes, each ended by one store write.
//
// Threads: the sync thread only. The pass owns nothing: the engine hands in
// the run's context, the service, the uploader, the scanner and its own
// tallies, which it keeps as members of its own.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "chunked_upload.h"
#include "file_scanner.h"
#include "sync_env.h"
#include "uploader.h"

namespace quillstone {
namespace dropbox {

// Names for a local item moved aside because the store knows it in another
// case. `full_dir` is the full path of the file's folder with a trailing
// slash; the result is the first free name: "stem (Case Conflict).ext", then
// "name (Case Conflict (1)).ext" and up. For a folder `path` is the store
// path under `sync_folder`, and the result the first free store path.
std::string CaseConflictFileName(const std::string& full_dir, const std::string& name);
std::string CaseConflictFolderPath(const std::string& sync_folder, const std::string& path);

class LocalPass {
 public:
  // What the pass counts in; the engine owns them.
  struct Tallies {
    std::map<std::string, FileSystemFileDelta>& file_deltas;  // by folder, "/", "/a/"
    int& files_done;
    int& files_total;
  };

  LocalPass(const RunContext& run, SyncService& service, utilities::Uploader& uploader,
            ChunkedUpload& chunked, FileScanner& scanner, const Tallies& tallies);

  // The whole pass; the scan reports to `callback`, which is expected to
  // hand its deltas to CollectFiles and ApplyDirs.
  int Run(ISyncCallback* callback);
  int CollectFiles(const std::string& dir, const FileSystemFileDelta& delta);
  int ApplyFiles(const std::string& dir, FileSystemFileDelta& delta);
  int ApplyDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs);

  // Uploads one file, whole or in chunks by its size. On kSuccess *result is
  // a new record, owned by the caller; otherwise it is left alone.
  int UploadFile(const std::string& path, FileMetadata** result);

 private:
  // Uploads one file and, when the service gives a record, counts it done and
  // appends the record, with the local digest, to `rows`.
  int UploadFileAndRecord(const std::string& path, std::vector<FileMetadata*>* rows);

  const RunContext& run_;  // the engine's, so the profile set before a run reaches here
  SyncService& service_;
  utilities::Uploader& uploader_;
  ChunkedUpload& chunked_;
  FileScanner& scanner_;
  Tallies tallies_;
};

}  // namespace dropbox
}  // namespace quillstone
