// The facade a host application with a user interface links: log in and out,
// start and stop a sync, ask for status, and ask or report the status of
// each file and folder of the sync folder.
//
// It holds nothing but a DropboxClient and a metadata store, so several hosts
// may each have their own; what they share lives in files and in the shared
// run state. Commands forward to the client and return at once; a host learns
// how a worker ended on event 212, from IsLoggedIn, IsSyncing and GetSyncError.
//
// Threads: use it from the host's event thread only. Configuration is a
// process-wide singleton without a lock, so no other thread of the host may
// ask it at the same time.
#pragma once

#include <string>

namespace quillstone {
namespace dropbox {

class DropboxClient;
class FileMetadataManager;

class Dropbox {
 public:
  // What a host shows for an item; never the store's own values.
  enum ItemStatus {
    kItemOutsideSyncFolder = 0,  // also a value the store should not hold
    kItemSynced = 1,
    kItemNotSynced = 2,  // changed since the last sync, or unknown to the store
    kItemStatusThree = 3,
    kItemFailed = 4,  // the item failed; on the sync folder itself, the last sync
  };
  enum ItemError {
    kItemNoError = 0,
    kItemTooManyFiles = 1,  // the service refused to delete this item
  };

  Dropbox();
  ~Dropbox();
  Dropbox(const Dropbox&) = delete;
  Dropbox& operator=(const Dropbox&) = delete;

  // Commands.
  int LogIn();            // starts the authorisation worker; 0
  int LogOut();           // 0
  int StarSync();         // 0, or -1 when no network could be had (then no event)
  int StopSync();         // 0
  void ProcessResults();  // on event 212
  std::string GetConfigFile() const;

  // Queries.
  bool IsLoggedIn();                  // a token that is neither empty nor expired
  bool IsSyncing();                   // the run state says a sync runs
  int GetSyncError();                 // the last sync's error; 0 when none was recorded
  std::string GetSyncFolder() const;  // as the settings say now, no trailing "/"
  std::string GetUserName();          // kept after a log-out
  std::string GetDefaultSyncFolder() const;

  // Item status, by full path. 0, QS_NOT_FOUND, or a code of the store. The
  // out-pointers must be valid.
  int GetFileStatus(const std::string& path, ItemStatus* status, ItemError* error);
  int GetFolderStatus(const std::string& path, ItemStatus* status, ItemError* error);
  // 1 when the folder is new to the store (its ancestors are then marked).
  int CheckFolderStatus(const std::string& path);
  // 1 when the file differs from the store's record (it and its ancestors
  // are then marked).
  int CheckFileStatus(const std::string& path);
  // Marks the ancestors of `path` (full or store path) as changed, if synced.
  void SetFoldersStatusChanged(const std::string& path);

  // Opens the store of the sync folder once; a failure is tried again by the
  // next call. Every item operation calls it first.
  void InitFmManager();

 private:
  DropboxClient* client_;
  FileMetadataManager* fm_manager_;
};

// The host's view of the store's status and error values.
Dropbox::ItemStatus FmStatusToStatus(int fm_status);
Dropbox::ItemError FmErrorToError(int fm_error);
// Whether a last sync error leaves the sync folder's own mark alone.
bool IsQuietSyncError(int sync_error);

}  // namespace dropbox
}  // namespace quillstone
