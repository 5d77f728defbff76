#define QS_SOURCE_NAME "src/configuration"

#include "configuration.h"

#include <unistd.h>

#include "device_root.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

namespace {

constexpr int kPartnerVarnholt = 13;
constexpr int kMaxFolderSuffix = 99;

// Copies at once: the text belongs to the handle.
std::string ReadText(void* config, const char* key, const std::string& deflt) {
  const char* value = ReadString(config, key, deflt.c_str());
  return value ? value : deflt;
}

}  // namespace

std::string DefaultSyncFolder() {
  return utilities::DevicePath(GetCustomizedPartner() == kPartnerVarnholt
                                   ? "/mnt/ext1/Dropbox Varnholt"
                                   : "/mnt/ext1/Dropbox Quillstone");
}

Configuration* Configuration::Instance() {
  static Configuration instance;
  if (instance.config_path_.empty()) {
    (void)instance.Init(utilities::DevicePath(kDropboxSettingsFile));
  }
  return &instance;
}

Configuration::Configuration() : changes_(0) {}

Configuration::~Configuration() {}

int Configuration::Init(const std::string& path) {
  config_path_ = path;
  const int err = watch_.Init(path, this);
  if (0 != err) {
    QS_LOG_ERR(err);
    return err;
  }
  status_ = GetStatus();
  return 0;
}

Configuration::Status Configuration::GetStatus() {
  watch_.CheckChanges();
  Status status;
  status.autosync = ReadInt(watch_.config_, kAutosyncKey, 1);
  status.sync_3g = ReadInt(watch_.config_, kSync3gKey, 0);
  status.folder = ReadText(watch_.config_, getFolderKey().c_str(), DefaultSyncFolder());
  const char* token = ReadSecret(watch_.config_, kAccessTokenKey, "");
  status.token = token ? token : "";
  status.connect_automatically = ReadInt(watch_.config_, kConnectAutomaticallyKey, 0);
  return status;
}

int Configuration::CheckChanges() {
  watch_.CheckChanges();
  return changes_;
}

void Configuration::ResetChanges() { changes_ = 0; }

void Configuration::Changed() {
  QS_LOG(kLogInfo, "Config changed");
  // The watcher noted the new file state before calling here, so the poll
  // inside GetStatus finds nothing and does not come back.
  Status fresh = GetStatus();
  changes_ |= kChangedFile;
  if (fresh.autosync != status_.autosync) changes_ |= kChangedAutosync;
  if (fresh.sync_3g != status_.sync_3g) changes_ |= kChangedSync3g;
  if (fresh.folder != status_.folder) changes_ |= kChangedFolder;
  if (fresh.token != status_.token) changes_ |= kChangedToken;
  if (fresh.connect_automatically != status_.connect_automatically) changes_ |= kChangedConnect;
  status_ = std::move(fresh);
}

void Configuration::writeStringToCfg(const std::string& key, const std::string& value) {
  void* config = OpenConfig(config_path_.c_str(), 0);
  if (!config) {
    QS_LOG(kLogError, "filed to OpenConfig %s", config_path_.c_str());
    return;
  }
  WriteString(config, key.c_str(), value.c_str());
  SaveConfig(config);
  CloseConfigNoSave(config);  // saved just above; closing must not save again
}

std::string Configuration::getFolderKey() {
  return kFolderKey + ReadText(watch_.config_, kAccountIdKey, "");
}

std::string Configuration::findNonexistentPathWithPrefix(const std::string& prefix) {
  // Any failure of access() counts as a free name, not only a missing file.
  if (access(prefix.c_str(), F_OK) == -1) return prefix;
  for (int n = 1; n <= kMaxFolderSuffix; ++n) {
    const std::string path = prefix + " (" + std::to_string(n) + ")";
    if (access(path.c_str(), F_OK) == -1) return path;
  }
  QS_LOG(kLogError, "Failed to found nonexistent path");
  return std::string();
}

void Configuration::UpdateDownloadFolder() {
  // The account id may have been written by this very process a moment
  // ago (after a log-in), through a handle other than the watcher's.
  watch_.CheckChanges();
  const std::string key = getFolderKey();
  if (!ReadText(watch_.config_, key.c_str(), "").empty()) return;
  const std::string path = findNonexistentPathWithPrefix(DefaultSyncFolder());
  if (path.empty()) return;
  (void)te_buildpath((path + "/").c_str());
  writeStringToCfg(key, path);
  writeStringToCfg(kFolderKey, path);
}

}  // namespace dropbox
}  // namespace quillstone
