#define QS_SOURCE_NAME "src/dropbox"

#include "dropbox.h"

#include <memory>

#include "arbour_utilities.h"
#include "configuration.h"
#include "device_names.h"
#include "device_root.h"
#include "dropbox_client.h"
#include "filemetadatamanager.h"
#include "qs_codes.h"
#include "tessera.h"

using quillstone::utilities::ArbourUtilities;
using quillstone::utilities::DevicePath;

namespace quillstone {
namespace dropbox {

namespace {

// Sync errors under which the sync folder is not marked as failed: 0 ok,
// 1 stopped by the user, 7 failed without a name of its own.
constexpr unsigned kQuietSyncErrors = 0x83;

std::string CurrentFolder() { return Configuration::Instance()->GetStatus().folder; }

// Reads the sync error; *opened tells whether the file could be opened.
int ReadSyncError(bool* opened) {
  void* config = OpenConfig(DevicePath(kSyncErrorFile).c_str(), nullptr);
  *opened = config != nullptr;
  if (config == nullptr) return 0;
  int value = ReadInt(config, kSyncErrorKey, 0);
  CloseConfigNoSave(config);
  return value;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// A full path on internal storage or the card. Only the first nine characters
// are looked at, so a store path that happens to start so is taken as one too.
bool IsStoragePath(const std::string& p) {
  for (const char* storage : {"/mnt/ext1", "/mnt/ext2"}) {
    if (p.compare(0, 9, storage) == 0 || StartsWith(p, DevicePath(storage))) return true;
  }
  return false;
}

}  // namespace

Dropbox::ItemStatus FmStatusToStatus(int fm_status) {
  switch (fm_status) {
    case FileMetadataManager::kStatusUnset:
    case FileMetadataManager::kStatusChanged:
      return Dropbox::kItemNotSynced;
    case FileMetadataManager::kStatusSynced:
      return Dropbox::kItemSynced;
    case FileMetadataManager::kStatusThree:
      return Dropbox::kItemStatusThree;
    case FileMetadataManager::kStatusFailed:
      return Dropbox::kItemFailed;
    default:
      return Dropbox::kItemOutsideSyncFolder;
  }
}

Dropbox::ItemError FmErrorToError(int fm_error) {
  return fm_error == FileMetadataManager::kErrorTooManyFiles ? Dropbox::kItemTooManyFiles
                                                             : Dropbox::kItemNoError;
}

bool IsQuietSyncError(int sync_error) {
  return sync_error >= 0 && sync_error <= 7 && ((kQuietSyncErrors >> sync_error) & 1u) != 0;
}

Dropbox::Dropbox() : client_(nullptr), fm_manager_(nullptr) {
  Configuration* configuration = Configuration::Instance();
  (void)configuration->Init(DevicePath(kDropboxSettingsFile));
  std::unique_ptr<DropboxClient> client(new DropboxClient(nullptr));
  (void)client->Init();
  fm_manager_ = new FileMetadataManager();
  client_ = client.release();
}

Dropbox::~Dropbox() {
  delete fm_manager_;
  delete client_;
}

int Dropbox::LogIn() { return client_->AuthentificateAsync(false, nullptr); }

int Dropbox::LogOut() { return client_->LogOut(); }

int Dropbox::StarSync() { return client_->StartSync(nullptr); }

int Dropbox::StopSync() { return client_->StopSync(nullptr); }

void Dropbox::ProcessResults() { client_->ProcessResults(); }

std::string Dropbox::GetConfigFile() const { return client_->GetConfigFile(); }

bool Dropbox::IsLoggedIn() { return client_->GetTokenStatus() == DropboxClient::kTokenValid; }

bool Dropbox::IsSyncing() { return client_->GetStatus() == DropboxClient::kSyncRunActive; }

int Dropbox::GetSyncError() {
  bool opened = false;
  return ReadSyncError(&opened);
}

std::string Dropbox::GetSyncFolder() const { return CurrentFolder(); }

std::string Dropbox::GetUserName() {
  void* config = OpenConfig(DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  std::string name = ReadString(config, kUserNameKey, "");
  CloseConfigNoSave(config);
  return name;
}

std::string Dropbox::GetDefaultSyncFolder() const { return DefaultSyncFolder(); }

void Dropbox::InitFmManager() {
  if (fm_manager_->is_inited_) return;
  (void)fm_manager_->Init(CurrentFolder() + kStoreInFolder);
}

int Dropbox::GetFileStatus(const std::string& path, ItemStatus* status, ItemError* error) {
  const std::string root = CurrentFolder() + "/";
  if (!StartsWith(path, root)) {
    *status = kItemOutsideSyncFolder;
    *error = kItemNoError;
    return QS_NOT_FOUND;
  }
  InitFmManager();
  FileMetadataManager::ItemStatus fm_status = FileMetadataManager::kStatusUnset;
  FileMetadataManager::ItemError fm_error = FileMetadataManager::kErrorNone;
  int err = fm_manager_->GetFileStatus(path.substr(root.size() - 1), &fm_status, &fm_error);
  if (err == QS_NOT_FOUND) {
    *status = kItemNotSynced;
    *error = kItemNoError;
    return err;
  }
  *status = FmStatusToStatus(fm_status);
  *error = FmErrorToError(fm_error);
  return err;
}

int Dropbox::GetFolderStatus(const std::string& path, ItemStatus* status, ItemError* error) {
  const std::string folder = CurrentFolder();
  const std::string root = folder + "/";
  if (!StartsWith(path, root) && path != folder) {
    *status = kItemOutsideSyncFolder;
    *error = kItemNoError;
    return QS_NOT_FOUND;
  }
  bool opened = false;
  int sync_error = ReadSyncError(&opened);
  // A failed sync shows on the sync folder's own mark, and only there.
  if (opened && !IsQuietSyncError(sync_error) && path == folder) {
    *status = kItemFailed;
    *error = kItemNoError;
    return QS_NOT_FOUND;
  }
  InitFmManager();
  FileMetadataManager::ItemStatus fm_status = FileMetadataManager::kStatusUnset;
  FileMetadataManager::ItemError fm_error = FileMetadataManager::kErrorNone;
  int err = fm_manager_->GetFolderStatus(path.substr(root.size() - 1), &fm_status, &fm_error);
  if (err == QS_NOT_FOUND) {
    *status = kItemNotSynced;
    *error = kItemNoError;
    return err;
  }
  *status = FmStatusToStatus(fm_status);
  *error = FmErrorToError(fm_error);
  return err;
}

int Dropbox::CheckFolderStatus(const std::string& path) {
  const std::string folder = CurrentFolder();
  const std::string root = folder + "/";
  if (!StartsWith(path, root) && path != folder) return 0;
  InitFmManager();
  const std::string store_path = path.substr(root.size() - 1);
  if (fm_manager_->GetFolderStatus(store_path, nullptr, nullptr) != QS_NOT_FOUND) return 0;
  SetFoldersStatusChanged(store_path);
  return 1;
}

int Dropbox::CheckFileStatus(const std::string& path) {
  const std::string root = CurrentFolder() + "/";
  if (!StartsWith(path, root)) return 0;
  InitFmManager();
  const std::string store_path = path.substr(root.size() - 1);
  FileInfo info;
  if (fm_manager_->GetFile(store_path, &info) == QS_NOT_FOUND) {
    // A new file has no row to mark; only its folders change.
    SetFoldersStatusChanged(store_path);
    return 0;
  }
  if (info.status == FileMetadataManager::kStatusChanged ||
      info.status == FileMetadataManager::kStatusFailed) {
    return 0;
  }
  if (ArbourUtilities::QuickMD5(path) == info.md5) return 0;
  (void)fm_manager_->SetFileStatus(store_path, FileMetadataManager::kStatusChanged,
                                   FileMetadataManager::kErrorNone);
  SetFoldersStatusChanged(store_path);
  return 1;
}

void Dropbox::SetFoldersStatusChanged(const std::string& path) {
  std::string p = path;
  const std::string root = CurrentFolder() + "/";
  if (StartsWith(p, root)) {
    p = p.substr(root.size() - 1);
  } else if (IsStoragePath(p)) {
    return;  // a full path outside the sync folder
  }
  InitFmManager();
  auto mark = [this](const std::string& folder) {
    FileMetadataManager::ItemStatus status = FileMetadataManager::kStatusUnset;
    if (fm_manager_->GetFolderStatus(folder, &status, nullptr) != QS_NOT_FOUND &&
        status == FileMetadataManager::kStatusSynced) {
      (void)fm_manager_->SetFolderStatus(folder, FileMetadataManager::kStatusChanged,
                                         FileMetadataManager::kErrorNone);
    }
  };
  for (std::string folder = GetFolderName(p); !folder.empty(); folder = GetFolderName(folder)) {
    mark(folder);
  }
  mark("");
}

}  // namespace dropbox
}  // namespace quillstone
