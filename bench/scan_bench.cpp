// The local scan alone over a tree of large books (2 to 20 MiB each, 1 GiB in
// all by default), in bytes per second beside `cat` reading the same files,
// and the peak memory of the process. Every scan digests every byte, so
// reading the bytes once is the floor. Reports figures only.
//
// Usage: scan_bench [folder]   (default: $TMPDIR or /tmp); QS_BENCH_SCAN_MIB
// sets the size of the tree.

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "file_scanner.h"
#include "filemetadatamanager.h"

using quillstone::dropbox::FileMetadataManager;
using quillstone::dropbox::FileScanner;
using quillstone::dropbox::FileSystemDirDelta;
using quillstone::dropbox::FileSystemFileDelta;

namespace {

class CountingCallback : public quillstone::dropbox::ISyncCallback {
 public:
  int SyncFiles(const std::string&, FileSystemFileDelta& delta) override {
    files += delta.added.size();
    return 0;
  }
  int SyncDirs(FileSystemDirDelta&, std::vector<std::string>*) override { return 0; }
  size_t files = 0;
};

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = getenv("TMPDIR");
  const std::string base = argc > 1 ? argv[1] : (tmp && *tmp ? tmp : "/tmp");
  const char* mib_text = getenv("QS_BENCH_SCAN_MIB");
  const size_t total = static_cast<size_t>(mib_text ? atol(mib_text) : 1024) << 20;
  const std::string root = base + "/scan_bench." + std::to_string(getpid());

  // Books of 2 to 20 MiB in folders of ten; one random block written over and
  // over is enough, the digest does not care.
  std::mt19937_64 random(7);
  std::vector<char> block(1 << 20);
  for (char& c : block) c = static_cast<char>(random());
  std::vector<std::string> paths;
  size_t written = 0;
  for (int i = 0; written < total; ++i) {
    const std::string dir = root + "/shelf" + std::to_string(i / 10);
    (void)mkdir(root.c_str(), 0755);
    (void)mkdir(dir.c_str(), 0755);
    const size_t size =
        std::min(total - written, (2u << 20) + static_cast<size_t>(random() % (18u << 20)));
    paths.push_back(dir + "/book" + std::to_string(i) + ".pdf");
    FILE* out = fopen(paths.back().c_str(), "wb");
    if (!out) {
      perror(paths.back().c_str());
      return 1;
    }
    for (size_t done = 0; done < size; done += block.size()) {
      fwrite(block.data(), 1, std::min(block.size(), size - done), out);
    }
    fclose(out);
    written += size;
  }

  FileMetadataManager store;
  store.Init(root + "/.dropbox/files.db");
  const std::string cat = "find '" + root + "' -name '*.pdf' -print0 | xargs -0 cat > /dev/null";
  double best_cat = 1e9, best_scan = 1e9;
  size_t listed = 0;
  // Alternate, so that both meet the same page cache; the best of each counts.
  for (int pass = 0; pass < 5; ++pass) {
    auto start = std::chrono::steady_clock::now();
    if (system(cat.c_str()) != 0) fprintf(stderr, "cat failed\n");
    best_cat = std::min(best_cat, Seconds(start));

    FileScanner scanner;
    CountingCallback callback;
    scanner.fm_manager_ = &store;
    scanner.sync_callback_ = &callback;
    start = std::chrono::steady_clock::now();
    scanner.Scan(root);
    best_scan = std::min(best_scan, Seconds(start));
    listed = callback.files;
  }
  store.Close();

  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const double mib = written / 1048576.0;
  printf(
      "(b) scan alone over %zu books, %.0f MiB: %.0f MiB/s, cat %.0f MiB/s, ratio %.2f "
      "(goal >= 0.9); peak RSS %.1f MiB%s\n",
      paths.size(), mib, mib / best_scan, mib / best_cat, best_cat / best_scan,
      usage.ru_maxrss / 1024.0, listed == paths.size() ? "" : " (files missing!)");
  const std::string remove = "rm -rf '" + root + "'";
  return system(remove.c_str()) == 0 ? 0 : 1;
}
