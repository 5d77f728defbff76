// The process-wide view of the sync settings in the settings file.
//
// The device's settings screen writes the file directly, so Configuration
// keeps no value for long: every read first polls the watcher, which reloads
// its open handle when the file changed on disk (and then calls Changed on
// the same thread), and reads through that handle. It also picks the sync
// folder of a new account.
//
// Thread safety: none; one thread at a time. The singleton from Instance()
// lives to process exit; the host and each worker have their own and meet
// only in the file, where the last save wins.
#pragma once

#include <stdint.h>

#include <string>

#include "configuration_watch.h"
#include "device_names.h"

namespace quillstone {
namespace dropbox {

// The partner's default sync folder (a device path under the device root);
// the partner number is asked each time.
std::string DefaultSyncFolder();

class Configuration : public utilities::ConfigurationWatch::Notify {
 public:
  struct Status {
    Status() = default;
    Status(const Status&) = default;
    Status(Status&&) = default;
    Status& operator=(const Status&) = default;
    // Moves the two strings, copies the integers.
    Status& operator=(Status&& other) = default;

    int32_t autosync = 0;               // kAutosyncKey
    int32_t sync_3g = 0;                // kSync3gKey: mobile data allowed
    std::string folder;                 // the account's sync folder, no trailing "/"
    int32_t connect_automatically = 0;  // kConnectAutomaticallyKey
    std::string token;                  // kAccessTokenKey
  };

  // Bits of the change mask.
  enum ChangeBits {
    kChangedAutosync = 1,
    kChangedSync3g = 2,
    kChangedFolder = 4,
    kChangedToken = 8,
    kChangedFile = 16,  // set on every change of the file, even with equal values
    kChangedConnect = 32,
  };

  // The singleton, attached to the device's settings file on first use.
  static Configuration* Instance();

  // An object of its own, not attached to a file until Init. The singleton
  // is the one the system uses; tests and tools may have others.
  Configuration();
  ~Configuration() override;
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  // Attaches to the settings file at `path`; may be called again to attach
  // anew. 0, or the watcher's error, after which reads give the defaults.
  int Init(const std::string& path);
  Status GetStatus();
  // The change bits gathered since the last ResetChanges, after a poll.
  int CheckChanges();
  void ResetChanges();
  // Gives the current account a sync folder if its folder key is empty: the
  // partner's default folder, or the first of "<default> (1)" ...
  // "<default> (99)" that does not exist. Creates it and writes it under
  // the account's key and under the plain kFolderKey.
  void UpdateDownloadFolder();

  // Called by the watcher when the file changed; gathers the change bits.
  void Changed() override;

  // Writes one string key through a handle of its own, and saves.
  void writeStringToCfg(const std::string& key, const std::string& value);
  // kFolderKey followed by the account id, if any.
  std::string getFolderKey();
  // `prefix` if nothing is there, else the first free "prefix (n)" for n
  // up to 99; "" when all are taken.
  std::string findNonexistentPathWithPrefix(const std::string& prefix);

  utilities::ConfigurationWatch watch_;
  Status status_;            // values at the last Changed or Init; for comparison only
  int32_t changes_;          // ChangeBits since the last ResetChanges
  std::string config_path_;  // empty until Init
};

}  // namespace dropbox
}  // namespace quillstone
