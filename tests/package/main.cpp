// Runs one sync of the configured folder in this process, then prints each
// file of the top folder with its stored status: "name status".
#include <pthread.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "configuration.h"
#include "dropboxsynchronizer.h"
#include "filemetadatamanager.h"

using quillstone::dropbox::Configuration;
using quillstone::dropbox::DropboxSynchronizer;
using quillstone::dropbox::FileInfo;
using quillstone::dropbox::FileMetadataManager;

class Finished : public quillstone::dropbox::SynchronizerCallback {
 public:
  int OnSyncFinished(int sync_error, bool) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sync_error_ = sync_error;
    cond_.notify_all();
    return 0;
  }
  int Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return sync_error_ >= 0; });
    return sync_error_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int sync_error_ = -1;
};

int main() {
  const std::string folder = Configuration::Instance()->GetStatus().folder;
  Finished finished;
  static DropboxSynchronizer synchronizer(&finished);  // its threads may outlive main's frame
  if (synchronizer.StartSync(folder) != 0) return 100;
  const int sync_error = finished.Wait();
  synchronizer.WaitForRun();
  printf("sync_error=%d\n", sync_error);

  FileMetadataManager store;
  std::vector<FileInfo> files;
  if (store.Init(folder + "/.dropbox/files.db") != 0 ||
      store.GetFilesByDir("", 0, 0, &files) != 0) {
    return 101;
  }
  for (const FileInfo& file : files) printf("%s %d\n", file.name.c_str(), file.status);
  store.Close();
  return sync_error;
}
