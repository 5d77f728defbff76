// The simulated network: <root>/var/run/network, a settings-format file with
//   available=1         a connection can be had (0: out of range, radio off)
//   connected=1         a connection is up now
//   connect_delay_ms=0  how long NetConnect takes to bring it up
//   fail_delay_ms=100   how long NetConnect takes to give up
// An absent file or key means available and connected, with those delays.
#define QS_SOURCE_NAME "platform/network"

#include <curl/curl.h>
#include <errno.h>
#include <sys/socket.h>

#include "device_root.h"
#include "host_common.h"
#include "host_device.h"
#include "qs_log.h"
#include "tessera.h"

using quillstone::kLogNotice;

using quillstone::utilities::DevicePath;

namespace {

constexpr char kNetworkState[] = "/var/run/network";
constexpr int kConnectedMask = 0x100;
constexpr int kMaxDelayMs = 60000;  // a typo in a test must not hang it for hours

int ClampDelay(int ms) { return ms < 0 ? 0 : (ms > kMaxDelayMs ? kMaxDelayMs : ms); }

int UpdateState(const char* key1, int value1, const char* key2, int value2) {
  void* settings = OpenConfig(DevicePath(kNetworkState).c_str(), nullptr);
  if (!settings) return EIO;
  WriteString(settings, key1, std::to_string(value1).c_str());
  WriteString(settings, key2, std::to_string(value2).c_str());
  int err = quillstone::host::SaveSettings(settings);
  CloseConfigNoSave(settings);
  return err;
}

// Refusing the socket is what a transfer meets with no connection: libcurl
// reports CURLE_COULDNT_CONNECT.
curl_socket_t OpenSocketOnDeviceNetwork(void*, curlsocktype, curl_sockaddr* address) {
  if (!quillstone::host::NetworkConnected()) return CURL_SOCKET_BAD;
  return socket(address->family, address->socktype, address->protocol);
}

}  // namespace

extern "C" {

int QueryNetwork(void) {
  void* settings = OpenConfig(DevicePath(kNetworkState).c_str(), nullptr);
  bool up = ReadInt(settings, "available", 1) != 0 && ReadInt(settings, "connected", 1) != 0;
  CloseConfigNoSave(settings);
  return up ? kConnectedMask : 0;
}

int NetConnect(const char* name) {
  void* settings = OpenConfig(DevicePath(kNetworkState).c_str(), nullptr);
  bool available = ReadInt(settings, "available", 1) != 0;
  bool connected = ReadInt(settings, "connected", 1) != 0;
  int connect_delay = ClampDelay(ReadInt(settings, "connect_delay_ms", 0));
  int fail_delay = ClampDelay(ReadInt(settings, "fail_delay_ms", 100));
  CloseConfigNoSave(settings);
  if (!available) {
    quillstone::host::SleepMs(fail_delay);
    QS_LOG(kLogNotice, "no network to connect to (%s)", name ? name : "default");
    return 1;
  }
  if (connected) return 0;
  quillstone::host::SleepMs(connect_delay);
  void* update = OpenConfig(DevicePath(kNetworkState).c_str(), nullptr);
  // The network may have gone away while we were connecting.
  if (!update || ReadInt(update, "available", 1) == 0) {
    CloseConfigNoSave(update);
    return 1;
  }
  WriteString(update, "connected", "1");
  int err = quillstone::host::SaveSettings(update);
  CloseConfigNoSave(update);
  return err == 0 ? 0 : 1;
}

// The host build links every program with --wrap=curl_easy_perform, so each
// easy transfer of the library (requests, uploads) meets the simulated
// network: down means a failure to connect, also on a connection that a
// reused handle still holds open.
CURLcode __real_curl_easy_perform(CURL* easy);
CURLcode __wrap_curl_easy_perform(CURL* easy) {
  if (!quillstone::host::NetworkConnected()) return CURLE_COULDNT_CONNECT;
  quillstone::host::UseDeviceNetwork(easy);
  return __real_curl_easy_perform(easy);
}

}  // extern "C"

namespace quillstone {
namespace host {

bool NetworkConnected() { return (QueryNetwork() & kConnectedMask) != 0; }

void UseDeviceNetwork(void* easy) {
  curl_easy_setopt(static_cast<CURL*>(easy), CURLOPT_OPENSOCKETFUNCTION,
                   &OpenSocketOnDeviceNetwork);
  curl_easy_setopt(static_cast<CURL*>(easy), CURLOPT_OPENSOCKETDATA, nullptr);
}

int SetNetworkState(bool available, bool connected) {
  return UpdateState("available", available ? 1 : 0, "connected", connected ? 1 : 0);
}

int SetNetworkDelays(int connect_delay_ms, int fail_delay_ms) {
  return UpdateState("connect_delay_ms", connect_delay_ms, "fail_delay_ms", fail_delay_ms);
}

}  // namespace host
}  // namespace quillstone
