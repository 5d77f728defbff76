#include "sync_profile.h"

#include "configuration.h"
#include "device_names.h"
#include "device_root.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

namespace {
const char kConfirmDeletionsKey[] = "confirm_deletions";
}  // namespace

SyncProfile ParseSyncProfile(const std::string& text) {
  return text == "safe" ? SyncProfile::kSafe : SyncProfile::kClassic;
}

const char* SyncProfileName(SyncProfile profile) {
  return profile == SyncProfile::kSafe ? "safe" : "classic";
}

SyncProfile ReadSyncProfile() {
  void* config = OpenConfig(utilities::DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return SyncProfile::kClassic;
  const SyncProfile profile = ParseSyncProfile(ReadString(config, kSyncProfileKey, "classic"));
  CloseConfigNoSave(config);
  return profile;
}

void WriteSyncProfile(SyncProfile profile) {
  void* config = OpenConfig(utilities::DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return;
  WriteString(config, kSyncProfileKey, SyncProfileName(profile));
  CloseConfig(config);
}

int ParseTransfers(const std::string& text) {
  if (text.empty() || text.size() > 2 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return kDefaultTransfers;
  }
  const int value = std::stoi(text);
  return value >= 1 && value <= kMaxTransfers ? value : kDefaultTransfers;
}

int ReadTransfers() {
  void* config = OpenConfig(utilities::DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return kDefaultTransfers;
  const int transfers = ParseTransfers(ReadString(config, kTransfersKey, ""));
  CloseConfigNoSave(config);
  return transfers;
}

void ConfirmDeletions() {
  void* config = OpenConfig(utilities::DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return;
  WriteString(config, kConfirmDeletionsKey, "1");
  CloseConfig(config);
}

bool TakeDeletionConfirmation() {
  void* config = OpenConfig(utilities::DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return false;
  const bool confirmed = std::string(ReadString(config, kConfirmDeletionsKey, "")) == "1";
  if (confirmed) {
    DeleteString(config, kConfirmDeletionsKey);
    CloseConfig(config);
  } else {
    CloseConfigNoSave(config);
  }
  return confirmed;
}

}  // namespace dropbox
}  // namespace quillstone
