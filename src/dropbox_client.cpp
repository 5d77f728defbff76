#define QS_SOURCE_NAME "src/dropbox_client"

#include "dropbox_client.h"

#include <stdlib.h>

#include <thread>

#include "configuration.h"
#include "device_root.h"
#include "qs_codes.h"
#include "qs_log.h"
#include "tessera.h"

using quillstone::utilities::DevicePath;

namespace quillstone {
namespace dropbox {

namespace {

const char kAuthWorker[] = "/fwroot/bin/dropbox_auth";
const char kSyncWorker[] = "/fwroot/bin/dropbox_sync";
const char kStopCommand[] = "killall dropbox_sync";
const char kSharedStateName[] = "/dropbox_state";
constexpr int kConnectionMask = 0xf00;
constexpr int kResultTypeWorker = 2;

// The shell command of a worker program. On the device the root is empty and
// the command is the program's path itself; a host root may hold blanks, so
// it is quoted there.
std::string WorkerCommand(const char* program) {
  if (utilities::DeviceRoot().empty()) return program;
  std::string quoted = "'";
  for (char c : DevicePath(program)) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

DropboxClient::DropboxClient(IDropboxClientResultListener* listener)
    : listener_(listener), client_inited_(false) {}

DropboxClient::~DropboxClient() {}

int DropboxClient::Init() {
  if (client_inited_) return -3;
  QS_LOG(kLogInfo, "Initializing dropbox client");
  int err = state_.Init(kSharedStateName, 4);
  if (err != 0) {
    QS_LOG_ERR(err);
    return err;
  }
  client_inited_ = true;
  return 0;
}

int DropboxClient::AuthentificateAsync(bool, void* user_data) {
  std::thread([this, user_data] { runAuth(user_data); }).detach();
  return 0;
}

int DropboxClient::StartSync(void* user_data) {
  if ((QueryNetwork() & kConnectionMask) == 0 && NetConnect(nullptr) != 0) return -1;
  std::thread([this, user_data] { runSync(user_data); }).detach();
  return 0;
}

int DropboxClient::StopSync(void*) {
  (void)!system(kStopCommand);
  return 0;
}

void DropboxClient::ProcessResults() {
  while (queue_.IsEmpty() == 0) {
    ActionResult result;
    if (queue_.Pop(&result) != 0) break;
    if (listener_ != nullptr) listener_->OnActionResult(result);
  }
}

int DropboxClient::GetTokenStatus() {
  void* config = OpenConfig(DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config == nullptr) return kTokenMissing;
  const char* value = ReadSecret(config, kAccessTokenKey, "");
  std::string token = value ? value : "";
  CloseConfigNoSave(config);
  if (token.empty()) return kTokenMissing;
  return token == kExpiredToken ? kTokenExpired : kTokenValid;
}

int DropboxClient::GetStatus() {
  // A block that could not be attached (damaged, too short, another user's)
  // reads as neither state, so a host sees no sync rather than crashing.
  void* payload = state_.GetState();
  if (payload == nullptr) return kSyncRunUnknown;
  state_.LockState();
  int state = *static_cast<volatile int32_t*>(payload);
  state_.UnlockState();
  return state;
}

int DropboxClient::LogOut() {
  void* config = OpenConfig(DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  if (config != nullptr) {
    WriteSecret(config, kAccessTokenKey, "");
    WriteString(config, kAccountIdKey, "");
    WriteString(config, kLastSyncKey, "");
    CloseConfig(config);
  }
  (void)te_unlink(DevicePath(LINDEN_SOCIAL_COOKIES_PATH).c_str());
  (void)!system(kStopCommand);
  return 0;
}

std::string DropboxClient::GetConfigFile() const { return kDropboxSettingsFile; }

void DropboxClient::runAuth(void* user_data) { runWorker(kAuthWorker, user_data); }

void DropboxClient::runSync(void* user_data) { runWorker(kSyncWorker, user_data); }

void DropboxClient::runWorker(const char* program, void* user_data) {
  int status = system(WorkerCommand(program).c_str());
  ActionResult result;
  result.type = kResultTypeWorker;
  // Bits 8 to 15 whatever ended the child: a killed worker reads as 0, a
  // failed system() (-1) as 255.
  result.code = (status >> 8) & 0xff;
  result.context = user_data;
  result.payload = nullptr;
  (void)queue_.Push(result);
  (void)SendEvent(GetEventHandler(), kWorkerEndedEvent, 0, 0);
}

}  // namespace dropbox
}  // namespace quillstone
