// Host-only controls of the simulated device, for tools, tests and the demo.
//
// The device calls of tessera.h behave as on the reader; these calls set up
// and observe the simulation behind them. Everything lives under the device
// root (platform/README.md tells the files, so scripts can do the same by
// writing them). Thread safety: safe on any thread unless said otherwise.
#pragma once

#include <string>
#include <vector>

namespace quillstone {
namespace host {

// Settings: SaveConfig with a result. 0, or an errno value (the file is then
// unchanged and the handle keeps its changes). A null handle gives EINVAL.
int SaveSettings(void* handle);

// Log: reads the level and rotation size of /fwroot/etc/device.cfg again
// (each process reads them at its first line) and reopens the log file.
void ReloadLogSettings();

// Shared blocks live until removed (as on the device, until power-off).
// Removes the block `name` of this device root, so that tests and demo runs
// leave nothing behind; processes still attached keep their mapping. 0, or
// an errno value.
int RemoveSharedBlock(const std::string& name);

// Network. `available`: whether a connection can be had at all; `connected`:
// whether one is up now. NetConnect waits `connect_delay_ms` before it brings
// the connection up, and `fail_delay_ms` before it reports a failure. 0, or
// an errno value.
int SetNetworkState(bool available, bool connected);
int SetNetworkDelays(int connect_delay_ms, int fail_delay_ms);

// SD card: inserting makes the card's mount folder if needed; removing only
// marks the slot empty, the folder and its files stay. 0, or an errno value.
int SetSDInserted(bool inserted);

// How often StartPanelProgress and PostponeTimedPoweroff ran under this root
// (in any process) since the root was made; 0 when never.
long PanelProgressCount();
long PoweroffPostponeCount();

// Folders whose flush after a finished download is still put off (sorted).
std::vector<std::string> PendingFolderSyncs();

// Tasks. Registers the calling process as the running task of `app_path` (a
// device path such as "/fwroot/bin/explorer.app"; a path under the device
// root is taken as the same) and opens its event socket. Gives the task
// number, or -1. A second call replaces the first registration.
int RegisterTask(const std::string& app_path);
// Removes the registration of the calling process and closes its socket.
void UnregisterTask();

struct Event {
  int type;
  int par1;
  int par2;
};
// Waits up to `timeout_ms` (negative: no limit) for the next event sent to
// this process's task. 1 with *event filled, 0 on time-out, -1 when no task is
// registered or the socket failed. An interrupting signal gives 0.
int ReceiveEvent(int timeout_ms, Event* event);

// The event handler of this process, which GetEventHandler returns and
// SendEvent calls. SendEvent calls it on the sender's thread, so it must be
// safe on any thread. Null restores the default: the process's event loop.
typedef int (*EventHandler)(int type, int par1, int par2);
void SetEventHandler(EventHandler handler);

// The process's event loop, as a host application runs it. SendEvent to the
// default handler queues the event from any thread (4096 at most; beyond that
// SendEvent gives -2 and drops the event); the loop's thread takes them in
// order here. Waits up to `timeout_ms` (negative: no limit): 1 with *event
// filled, 0 on time-out.
int WaitEvent(int timeout_ms, Event* event);

// The browser program's channel to BrowserAuthorization: this environment
// variable names a descriptor on which the browser writes one line per
// event, "url ADDRESS" or "error TEXT".
constexpr char kBrowserEventsVariable[] = "QUILLSTONE_BROWSER_EVENTS";
// Writes one event line on the channel of this process. 0, or -1 when the
// process has no channel or the watcher has gone.
int ReportBrowserEvent(const std::string& kind, const std::string& text);

// The person at the device, as the browser and dialog stand-ins play them:
// the settings file kPersonSettings under the root. Keys:
//   browser          allow | deny | close | idle | interactive (default allow)
//   idle_ms          how long "idle" does nothing before it closes the
//                    browser (default 0)
//   dialog_delay_ms  how long a dialog waits before its button is pressed
//                    (default 0)
constexpr char kPersonSettings[] = "/var/run/person.cfg";

// The device's own settings files, as the stand-ins read them: kDeviceSettings
// holds partner=N (GetCustomizedPartner), kNetworkSettings proxy=URL
// (get_proxy).
constexpr char kDeviceSettings[] = "/fwroot/etc/device.cfg";
constexpr char kNetworkSettings[] = "/fwroot/etc/network.cfg";

}  // namespace host
}  // namespace quillstone
