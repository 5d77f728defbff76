// dropbox-host: a host application of the Dropbox facade, as the device's
// settings screen and file browser are. It runs the process's event loop,
// handles event 212 (a worker ended) and, in watch mode, event 73 (a folder
// changed), and asks the facade for everything it shows.
//
//   dropbox-host status               account, sync folder, run state, last sync
//   dropbox-host login                runs the authorisation worker to its end
//   dropbox-host logout
//   dropbox-host sync                 starts a sync and shows its progress to the end
//                 [--confirm-deletions]  lets a safe run delete what it held back
//   dropbox-host stop                 stops the sync of this device root
//   dropbox-host ls [--check] [PATH]  the tree of the sync folder (or of PATH in it)
//                                     with each item's status; --check first reports
//                                     local changes, as a file browser does
//   dropbox-host watch [--sync] [--check] [PATH]
//                                     redraws the tree on every event 73 until
//                                     interrupted; --sync starts a sync and ends with it
//
// On a terminal the progress is a bar redrawn in place and watch redraws the
// screen; otherwise everything is plain lines, for scripts and tests.
// Exit status: 0 success; 1 a sync that ended with an error, or a command
// that could not do its work; 2 a usage error; 3 no network for a sync.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "configuration.h"
#include "device_names.h"
#include "device_root.h"
#include "download_status.h"
#include "dropbox.h"
#include "host_device.h"
#include "shared_state.h"
#include "sync_profile.h"
#include "tessera.h"

using quillstone::dropbox::Dropbox;
using quillstone::dropbox::kFolderChangedEvent;
using quillstone::dropbox::kWorkerEndedEvent;
using quillstone::host::Event;
using quillstone::utilities::DevicePath;

namespace {

constexpr int kPollMs = 150;
const char kAuthWorker[] = "/fwroot/bin/dropbox_auth";

volatile sig_atomic_t g_signals = 0;
void OnSignal(int) { g_signals = g_signals + 1; }

bool g_tty = false;

const char* SyncErrorText(int sync_error) {
  switch (sync_error) {
    case 0:
      return "synced";
    case 1:
      return "stopped";
    case 2:
      return "no network";
    case 3:
      return "a download failed";
    case 4:
      return "not authorised: log in again";
    case 5:
      return "the sync folder belongs to another account";
    case 6:
      return "no SD card";
    case 7:
      return "failed";
    case 8:
      return "restricted content left unsynced";
    default:
      return "unknown error";
  }
}

const char* StatusText(Dropbox::ItemStatus status) {
  switch (status) {
    case Dropbox::kItemSynced:
      return "synced";
    case Dropbox::kItemNotSynced:
      return "not synced";
    case Dropbox::kItemStatusThree:
      return "status 3";
    case Dropbox::kItemFailed:
      return "failed";
    default:
      return "outside";
  }
}

const char* StatusColour(Dropbox::ItemStatus status) {
  switch (status) {
    case Dropbox::kItemSynced:
      return "\033[32m";
    case Dropbox::kItemFailed:
      return "\033[31m";
    case Dropbox::kItemNotSynced:
      return "\033[33m";
    default:
      return "\033[2m";
  }
}

// ---- progress ------------------------------------------------------------

struct Progress {
  bool valid = false;
  int phase = 0;
  int total = 0;
  int done = 0;
  std::string file;
  int percent = 0;
  // The transfers in flight, as the worker shows them on a channel of their
  // own: item paths and percents, in the order they started.
  std::vector<std::pair<std::string, int>> in_flight;
};

// A status channel's last publication; null when there is none to read.
Json::Value ReadChannel(const std::string& name) {
  std::ifstream in(DevicePath("/tmp/download_status/" + name + ".json"));
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!in || !Json::parseFromStream(builder, in, &root, &errors) || !root.isObject()) {
    return Json::Value();
  }
  return root;
}

Progress ReadProgress() {
  Progress progress;
  const Json::Value root = ReadChannel(quillstone::utilities::ServicesDownloadStatus::dropbox_name);
  if (!root.isObject()) return progress;
  progress.valid = true;
  progress.phase = root.get("phase", 0).asInt();
  progress.total = root.get("total", 0).asInt();
  progress.done = root.get("done", 0).asInt();
  const Json::Value& current = root["current_file"];
  if (current.isObject()) {
    progress.file = current.get("name", "").asString();  // the item's path in the sync folder
    progress.percent = current.get("progress", 0).asInt();
  }
  const Json::Value transfers = ReadChannel(quillstone::dropbox::kTransfersChannel);
  if (transfers.isObject() && transfers["files"].isArray()) {
    for (const Json::Value& file : transfers["files"]) {
      if (!file.isObject()) continue;
      progress.in_flight.emplace_back(file.get("name", "").asString(),
                                      file.get("progress", 0).asInt());
    }
  }
  return progress;
}

const char* PhaseText(int phase) {
  switch (phase) {
    case 1:
      return "server changes";
    case 2:
      return "local changes";
    default:
      return "idle";
  }
}

// Plain lines leave out the percents of the transfers in flight, so that a
// script sees a line when the set in flight changes, not at every tick.
std::string ProgressLine(const Progress& p, bool percents) {
  std::ostringstream line;
  line << PhaseText(p.phase) << " " << p.done << "/" << p.total;
  if (!p.file.empty()) line << " " << p.file << " " << p.percent << "%";
  if (p.phase != 0 && !p.in_flight.empty()) {
    line << "; in flight " << p.in_flight.size() << ":";
    for (const auto& file : p.in_flight) {
      line << " " << file.first.substr(file.first.rfind('/') + 1);
      if (percents) line << " " << file.second << "%";
    }
  }
  return line.str();
}

class ProgressView {
 public:
  void Show(const Progress& p) {
    if (!p.valid) return;
    std::string line = ProgressLine(p, g_tty);
    if (g_tty) {
      const int width = 24;
      int filled = p.total > 0 ? width * std::min(p.done, p.total) / p.total : 0;
      std::string bar(static_cast<size_t>(filled), '#');
      bar.append(static_cast<size_t>(width - filled), '-');
      printf("\r\033[K[%s] %s", bar.c_str(), line.substr(0, 100).c_str());
      fflush(stdout);
      drawn_ = true;
    } else if (line != last_) {
      printf("progress: %s\n", line.c_str());
      fflush(stdout);
    }
    last_ = line;
  }
  void End() {
    if (g_tty && drawn_) printf("\r\033[K");
    drawn_ = false;
  }

 private:
  std::string last_;
  bool drawn_ = false;
};

// ---- tree ----------------------------------------------------------------

struct Item {
  std::string path;  // full path
  bool folder;
};

// The items under `top` in name order, folders before their content; the
// store's own folder at the top of the sync folder is left out.
void Walk(const std::string& top, const std::string& sync_folder, std::vector<Item>* items) {
  DIR* dir = opendir(top.c_str());
  if (!dir) return;
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (top == sync_folder && name == ".dropbox") continue;
    names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = top + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    bool folder = S_ISDIR(st.st_mode);
    items->push_back({path, folder});
    if (folder) Walk(path, sync_folder, items);
  }
}

// Reports local changes through the facade, folders before their files.
void CheckLocalChanges(Dropbox* dropbox, const std::vector<Item>& items) {
  for (const Item& item : items) {
    if (item.folder) {
      (void)dropbox->CheckFolderStatus(item.path);
    } else {
      (void)dropbox->CheckFileStatus(item.path);
    }
  }
}

void PrintItem(const std::string& shown, Dropbox::ItemStatus status, Dropbox::ItemError error) {
  const char* error_text = error == Dropbox::kItemTooManyFiles ? "  (too many files)" : "";
  if (g_tty) {
    printf("%s%-10s\033[0m  %s%s\n", StatusColour(status), StatusText(status), shown.c_str(),
           error_text);
  } else {
    printf("%-10s  %s%s\n", StatusText(status), shown.c_str(), error_text);
  }
}

int PrintTree(Dropbox* dropbox, const std::string& start, bool check) {
  const std::string folder = dropbox->GetSyncFolder();
  std::string top = start.empty() ? folder : start;
  while (top.size() > 1 && top.back() == '/') top.pop_back();
  if (top != folder && top.compare(0, folder.size() + 1, folder + "/") != 0) {
    fprintf(stderr, "dropbox-host: %s is not in the sync folder %s\n", top.c_str(), folder.c_str());
    return 1;
  }
  struct stat st;
  if (stat(top.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    fprintf(stderr, "dropbox-host: %s is not a folder\n", top.c_str());
    return 1;
  }
  std::vector<Item> items;
  Walk(top, folder, &items);
  if (check) {
    if (top != folder) (void)dropbox->CheckFolderStatus(top);
    CheckLocalChanges(dropbox, items);
  }
  Dropbox::ItemStatus status;
  Dropbox::ItemError error;
  (void)dropbox->GetFolderStatus(top, &status, &error);
  PrintItem(top, status, error);
  for (const Item& item : items) {
    std::string shown = item.path.substr(folder.size()) + (item.folder ? "/" : "");
    if (item.folder) {
      (void)dropbox->GetFolderStatus(item.path, &status, &error);
    } else {
      (void)dropbox->GetFileStatus(item.path, &status, &error);
    }
    PrintItem(shown, status, error);
  }
  fflush(stdout);
  return 0;
}

// ---- commands ------------------------------------------------------------

// The facade reads a missing outcome as success; only the absence of the key
// tells a device that never synced.
bool EverSynced() {
  void* config = OpenConfig(DevicePath(quillstone::dropbox::kSyncErrorFile).c_str(), nullptr);
  if (config == nullptr) return false;
  const char* value = ReadString(config, quillstone::dropbox::kSyncErrorKey, nullptr);
  bool found = value != nullptr;
  CloseConfigNoSave(config);
  return found;
}

// The facade answers "not syncing" when it cannot use the run state block;
// a person is told why, since a sync then looks as if it never runs.
void ReportRunStateBlock() {
  const char kName[] = "/dropbox_state";
  quillstone::utilities::SharedStateImpl probe;
  int err = probe.Init(kName, 4);
  if (err == 0) return;
  const char* why;
  switch (err) {
    case EMSGSIZE:
      why = "it is too short for the run state";
      break;
    case EBADMSG:
      why = "it was not made by this system";
      break;
    case EPERM:
    case EACCES:
      why = "it belongs to another user or may not be read and written";
      break;
    default:
      why = strerror(err);
  }
  fprintf(stderr,
          "dropbox-host: the shared block %s cannot be used: %s; a running sync shows as not "
          "running\n",
          kName, why);
}

int Status(Dropbox* dropbox) {
  int sync_error = dropbox->GetSyncError();
  std::string user = dropbox->GetUserName();
  printf("logged in:   %s\n", dropbox->IsLoggedIn() ? "yes" : "no");
  printf("user:        %s\n", user.empty() ? "-" : user.c_str());
  printf("sync folder: %s\n", dropbox->GetSyncFolder().c_str());
  printf("syncing:     %s\n", dropbox->IsSyncing() ? "yes" : "no");
  if (EverSynced()) {
    printf("last sync:   %s (sync_error %d)\n", SyncErrorText(sync_error), sync_error);
  } else {
    printf("last sync:   never\n");
  }
  return 0;
}

// Waits for the end of the worker this process started; counts the events
// 212 it got, and keeps showing progress meanwhile when asked.
struct WorkerWait {
  int ended = 0;
  bool seen_syncing = false;
};

// Runs the event loop until a worker ends. `on_tick` runs between events;
// `on_event` for every other event. A first signal calls `on_signal`, a
// second one gives up the wait.
template <typename Tick, typename Other, typename Interrupt>
void RunLoopUntilWorkerEnds(Dropbox* dropbox, WorkerWait* wait, Tick on_tick, Other on_event,
                            Interrupt on_signal) {
  int handled_signals = 0;
  for (;;) {
    if (g_signals != handled_signals) {
      handled_signals = g_signals;
      if (handled_signals > 1) return;
      on_signal();
    }
    Event event;
    if (quillstone::host::WaitEvent(kPollMs, &event) == 0) {
      on_tick();
      continue;
    }
    if (event.type != kWorkerEndedEvent) {
      on_event(event);
      continue;
    }
    dropbox->ProcessResults();
    ++wait->ended;
    break;
  }
  // Events already queued, e.g. from a second worker, are counted too.
  Event event;
  while (quillstone::host::WaitEvent(0, &event) == 1) {
    if (event.type == kWorkerEndedEvent) {
      dropbox->ProcessResults();
      ++wait->ended;
    } else {
      on_event(event);
    }
  }
}

int Login(Dropbox* dropbox) {
  (void)dropbox->LogIn();
  WorkerWait wait;
  RunLoopUntilWorkerEnds(
      dropbox, &wait, [] {}, [](const Event&) {}, [] {});
  if (dropbox->IsLoggedIn()) {
    printf("logged in as %s\n", dropbox->GetUserName().c_str());
    return 0;
  }
  if (access(DevicePath(kAuthWorker).c_str(), X_OK) != 0) {
    printf("not logged in: the authorisation program %s is not installed\n", kAuthWorker);
  } else {
    printf("not logged in\n");
  }
  return 1;
}

// Starts a sync; false (after saying why) when none could be started.
bool StartSync(Dropbox* dropbox) {
  if (!dropbox->IsLoggedIn()) {
    printf("not logged in: run \"dropbox-host login\" first\n");
    return false;
  }
  if (dropbox->StarSync() != 0) {
    printf("no network: the sync was not started\n");
    return false;
  }
  printf("sync started\n");
  fflush(stdout);
  return true;
}

int FinishSync(Dropbox* dropbox, const WorkerWait& wait) {
  int sync_error = dropbox->GetSyncError();
  printf("worker ended: %d event%s 212, syncing now: %s\n", wait.ended, wait.ended == 1 ? "" : "s",
         dropbox->IsSyncing() ? "yes" : "no");
  printf("outcome: %s (sync_error %d)\n", SyncErrorText(sync_error), sync_error);
  return wait.ended > 0 && sync_error == 0 ? 0 : 1;
}

void NoteSyncing(Dropbox* dropbox, WorkerWait* wait) {
  if (!wait->seen_syncing && dropbox->IsSyncing()) {
    wait->seen_syncing = true;
    if (!g_tty) {
      printf("syncing: yes\n");
      fflush(stdout);
    }
  }
}

int Sync(Dropbox* dropbox) {
  if (!StartSync(dropbox)) return dropbox->IsLoggedIn() ? 3 : 1;
  WorkerWait wait;
  ProgressView view;
  RunLoopUntilWorkerEnds(
      dropbox, &wait,
      [&] {
        NoteSyncing(dropbox, &wait);
        view.Show(ReadProgress());
      },
      [](const Event&) {},
      [&] {
        view.End();
        printf("stopping the sync\n");
        fflush(stdout);
        (void)dropbox->StopSync();
      });
  view.Show(ReadProgress());
  view.End();
  return FinishSync(dropbox, wait);
}

// Forwards the events sent to this process's task into its event loop.
void ForwardTaskEvents(std::atomic<bool>* stop) {
  while (!stop->load()) {
    Event event;
    if (quillstone::host::ReceiveEvent(200, &event) == 1) {
      (void)SendEvent(GetEventHandler(), event.type, event.par1, event.par2);
    }
  }
}

int Watch(Dropbox* dropbox, bool sync, bool check, const std::string& path) {
  // The file browser is the task that folder changes are sent to.
  if (quillstone::host::RegisterTask(quillstone::dropbox::kFileBrowserApp) < 0) {
    fprintf(stderr, "dropbox-host: cannot register as the file browser's task\n");
    return 1;
  }
  std::atomic<bool> stop{false};
  std::thread forwarder(ForwardTaskEvents, &stop);
  int redraws = 0;
  auto draw = [&](const char* why) {
    if (g_tty) {
      printf("\033[H\033[2J");
    } else {
      printf("--- tree #%d (%s)\n", ++redraws, why);
    }
    (void)PrintTree(dropbox, path, check);
  };
  draw("start");
  int result = 0;
  if (sync) {
    if (StartSync(dropbox)) {
      WorkerWait wait;
      RunLoopUntilWorkerEnds(
          dropbox, &wait, [&] { NoteSyncing(dropbox, &wait); },
          [&](const Event& event) {
            if (event.type == kFolderChangedEvent) draw("event 73");
          },
          [&] { (void)dropbox->StopSync(); });
      draw("sync ended");
      result = FinishSync(dropbox, wait);
    } else {
      result = dropbox->IsLoggedIn() ? 3 : 1;
    }
  } else {
    while (g_signals == 0) {
      Event event;
      if (quillstone::host::WaitEvent(kPollMs, &event) != 1) continue;
      if (event.type == kFolderChangedEvent) draw("event 73");
      if (event.type == kWorkerEndedEvent) {
        dropbox->ProcessResults();
        draw("event 212");
      }
    }
  }
  stop = true;
  forwarder.join();
  quillstone::host::UnregisterTask();
  return result;
}

int Usage() {
  fprintf(stderr,
          "usage: dropbox-host status | login | logout | sync | stop\n"
          "       dropbox-host ls [--check] [PATH]\n"
          "       dropbox-host watch [--sync] [--check] [PATH]\n"
          "       dropbox-host sync [--confirm-deletions]\n"
          "       dropbox-host profile [classic|safe]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string command = argv[1];
  if (command == "profile") {
    // Shown or set in the settings file; the worker reads it at its next start.
    using quillstone::dropbox::SyncProfile;
    if (argc > 3) return Usage();
    if (argc == 3) {
      const std::string value = argv[2];
      if (value != "classic" && value != "safe") return Usage();
      quillstone::dropbox::WriteSyncProfile(quillstone::dropbox::ParseSyncProfile(value));
    }
    printf("%s\n", quillstone::dropbox::SyncProfileName(quillstone::dropbox::ReadSyncProfile()));
    return 0;
  }
  bool check = false, sync = false;
  std::string path;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--check" && (command == "ls" || command == "watch")) {
      check = true;
    } else if (arg == "--sync" && command == "watch") {
      sync = true;
    } else if (arg == "--confirm-deletions" && command == "sync") {
      quillstone::dropbox::ConfirmDeletions();
    } else if (arg[0] != '-' && path.empty() && (command == "ls" || command == "watch")) {
      path = arg;
    } else {
      return Usage();
    }
  }
  g_tty = isatty(STDOUT_FILENO) != 0;
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = OnSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  // Workers end through this object's threads, so it lives to the very end.
  static Dropbox* dropbox = new Dropbox();
  if (command == "status" || command == "sync" || command == "watch") ReportRunStateBlock();
  if (command == "status") return Status(dropbox);
  if (command == "login") return Login(dropbox);
  if (command == "logout") {
    (void)dropbox->LogOut();
    printf("logged out\n");
    return 0;
  }
  if (command == "sync") return Sync(dropbox);
  if (command == "stop") {
    (void)dropbox->StopSync();
    printf("stop sent\n");
    return 0;
  }
  if (command == "ls") return PrintTree(dropbox, path, check);
  if (command == "watch") return Watch(dropbox, sync, check, path);
  return Usage();
}
