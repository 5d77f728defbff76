// The names the library shares with the device's other programs: the events
// it sends, the settings files, and the keys in them. The settings screen,
// the file browser, the hosts and the workers must all read the same names,
// so each is spelt here once.
//
// Constants only; safe to use from any thread.
#pragma once

namespace quillstone {
namespace dropbox {

// Events. A worker ended: sent, with no payload, to the host that started it.
// Some of the sync folder changed: sent to the file browser.
constexpr int kWorkerEndedEvent = 212;
constexpr int kFolderChangedEvent = 73;
// The program whose task receives kFolderChangedEvent.
inline constexpr char kFileBrowserApp[] = "/fwroot/bin/explorer.app";

// The status channel of the transfers in flight, beside the run's own.
inline constexpr char kTransfersChannel[] = "dropbox_transfers";

// Device paths of the service's settings file, which holds the account and
// the sync folder, and of the file that keeps the last run's outcome.
inline constexpr char kDropboxSettingsFile[] = "/mnt/ext1/system/config/dropbox/dropbox.cfg";
inline constexpr char kSyncErrorFile[] = "/mnt/ext1/system/config/dropbox/sync_err.cfg";
// The optional addresses and app registration of the service.
inline constexpr char kServiceSettingsFile[] = "/fwroot/etc/dropbox/service.cfg";

// The store, and the lock of the one worker that may sync the folder, below
// the sync folder; the host and the worker open the same file.
inline constexpr char kStoreInFolder[] = "/.dropbox/files.db";
inline constexpr char kWorkerLockInFolder[] = "/.dropbox/lock";

// Keys of the settings file: the token and the account.
inline constexpr char kAccessTokenKey[] = "access_token_v2";  // a secret
inline constexpr char kUserNameKey[] = "user_name";
inline constexpr char kAccountIdKey[] = "account_id";
inline constexpr char kUserEmailKey[] = "user_email";
inline constexpr char kLastSyncKey[] = "last_sync";
// What a worker writes in place of a token that the service no longer takes.
inline constexpr char kExpiredToken[] = "<expired>";

// Keys of the settings file: the sync settings. The sync folder's key is
// kFolderKey followed by the account id; the plain kFolderKey holds the
// folder chosen last.
inline constexpr char kFolderKey[] = "dropbox_folder";
inline constexpr char kAutosyncKey[] = "dropbox_autosync";
inline constexpr char kSync3gKey[] = "dropbox_sync_3g";  // mobile data allowed
inline constexpr char kConnectAutomaticallyKey[] = "dropbox_connect_automatically";
// "classic" (also when absent or unknown) or "safe": how the sync behaves.
inline constexpr char kSyncProfileKey[] = "sync_profile";
// 1 to 16: the downloads a run keeps in flight.
inline constexpr char kTransfersKey[] = "transfers";

// Keys of the OAuth 1 log-in that older versions stored, read once to
// migrate it and then deleted.
inline constexpr char kOldTokenKey[] = "access_token";               // a secret
inline constexpr char kOldTokenSecretKey[] = "access_token_secret";  // a secret
inline constexpr char kOldUidKey[] = "user_uid";

// The key of the sync error settings file: the last run's sync error.
inline constexpr char kSyncErrorKey[] = "sync_error";

}  // namespace dropbox
}  // namespace quillstone
