// Times the metadata store as a first sync fills it: 100,000 files, 20 per
// folder, in 5,000 folders ("/dNN/sNNN"), added in batches of 1,000 as the
// sync engine adds a listing page. At 1,000, 10,000 and 100,000 files it
// prints the cost per batch item, per folder listing, per lookup without
// case, and the size of the database; then the cost of one file added alone,
// as a sync adds each downloaded file. All of it twice: with the store's
// indexes and without them, to show what they cost on insert and save on
// lookup. Prints figures only; asserts nothing.
//
// Usage: store_bench [work folder]   (default: a new folder under $TMPDIR)
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "filemetadatamanager.h"

using quillstone::dropbox::FileInfo;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;

namespace {

const int kFilesPerFolder = 20;
const int kFolders = 5000;
const int kBatch = 1000;
const int kQueries = 200;

double NowUs() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string FolderPath(int folder) {
  char text[32];
  snprintf(text, sizeof(text), "/D%02d/Sub%03d", folder / 100, folder % 100);
  return text;
}

std::string FileName(int file) { return "Book " + std::to_string(file) + ".EPUB"; }

long long FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// Lowercase in a folder path, so the lookup must go by the lowercase forms.
std::string Flip(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

int Run(const std::string& db_path, bool indexes);

}  // namespace

int main(int argc, char** argv) {
  std::string work;
  if (argc > 1) {
    work = argv[1];
  } else {
    const char* tmp = getenv("TMPDIR");
    work = std::string(tmp && *tmp ? tmp : "/tmp") + "/store-bench-XXXXXX";
    if (!mkdtemp(&work[0])) {
      perror("mkdtemp");
      return 1;
    }
  }
  // Log lines of the store land in the work folder, not on the host's /var.
  setenv("QUILLSTONE_DEVICE_ROOT", work.c_str(), 0);
  for (bool indexes : {true, false}) {
    int rc = Run(work + (indexes ? "/indexed" : "/plain") + "/.dropbox/files.db", indexes);
    if (rc != 0) return rc;
  }
  return 0;
}

namespace {

int Run(const std::string& db_path, bool indexes) {
  FileMetadataManager store;
  if (store.Init(db_path) != 0) {
    fprintf(stderr, "cannot open %s\n", db_path.c_str());
    return 1;
  }
  if (!indexes) {
    // As the store was before it had indexes of its own.
    sqlite3* db = nullptr;
    sqlite3_open(db_path.c_str(), &db);
    sqlite3_exec(db, "DROP INDEX FoldersByPathLc; DROP INDEX FilesByFolderNameLc;", nullptr,
                 nullptr, nullptr);
    sqlite3_close(db);
  }
  store.InitRootFolder();
  printf("\n%s indexes; database: %s\n", indexes ? "with" : "without", db_path.c_str());
  printf("%8s %8s %14s %16s %18s %18s %10s %10s\n", "files", "folders", "add us/item",
         "by dir us/call", "file nocase us", "folder nocase us", "db KiB", "wal KiB");

  std::mt19937 random(42);
  int added = 0;
  double add_us = 0;
  int add_items = 0;
  for (int checkpoint : {1000, 10000, kFolders * kFilesPerFolder}) {
    while (added < checkpoint) {
      std::vector<FileMetadata> page(kBatch);
      std::vector<FileMetadata*> pointers;
      for (FileMetadata& m : page) {
        const int folder = added / kFilesPerFolder;
        m.name = FileName(added);
        m.path = FolderPath(folder) + "/" + m.name;
        m.rev = "015f" + std::to_string(1000000 + added);
        m.size = 1000000 + added;
        m.md5 = "0123456789abcdef0123456789abcdef";
        pointers.push_back(&m);
        ++added;
      }
      const double start = NowUs();
      const int rc = store.AddFiles(pointers);
      add_us += NowUs() - start;
      add_items += kBatch;
      if (rc != 0) {
        fprintf(stderr, "AddFiles failed: %d\n", rc);
        return 1;
      }
    }
    const int folders = added / kFilesPerFolder;
    std::uniform_int_distribution<int> pick_folder(0, folders - 1);
    std::uniform_int_distribution<int> pick_file(0, added - 1);

    double start = NowUs();
    size_t listed = 0;
    for (int i = 0; i < kQueries; ++i) {
      std::vector<FileInfo> files;
      store.GetFilesByDir(FolderPath(pick_folder(random)), 0, 10000, &files);
      listed += files.size();
    }
    const double by_dir_us = (NowUs() - start) / kQueries;

    start = NowUs();
    size_t found_files = 0;
    for (int i = 0; i < kQueries; ++i) {
      const int file = pick_file(random);
      std::vector<FileInfo> files;
      store.GetFileByPathIgnoreCase(
          Flip(FolderPath(file / kFilesPerFolder)) + "/" + Flip(FileName(file)), &files);
      found_files += files.size();
    }
    const double file_nocase_us = (NowUs() - start) / kQueries;

    start = NowUs();
    size_t found_folders = 0;
    for (int i = 0; i < kQueries; ++i) {
      std::vector<std::string> found;
      store.GetFolderByPathIgnoreCase(Flip(FolderPath(pick_folder(random))), &found);
      found_folders += found.size();
    }
    const double folder_nocase_us = (NowUs() - start) / kQueries;

    if (listed != static_cast<size_t>(kQueries * kFilesPerFolder) ||
        found_files != static_cast<size_t>(kQueries) ||
        found_folders != static_cast<size_t>(kQueries)) {
      fprintf(stderr, "unexpected results: %zu listed, %zu files, %zu folders found\n", listed,
              found_files, found_folders);
    }
    printf("%8d %8d %14.1f %16.1f %18.1f %18.1f %10lld %10lld\n", added, folders,
           add_us / add_items, by_dir_us, file_nocase_us, folder_nocase_us,
           FileSize(db_path) / 1024, FileSize(db_path + "-wal") / 1024);
    fflush(stdout);
    add_us = 0;
    add_items = 0;
  }
  // One file at a time, as a sync records each download: the lookups of the
  // file's folder and name without case, then the insert.
  const int kSingles = 1000;
  double lookup_us = 0, insert_us = 0;
  for (int i = 0; i < kSingles; ++i, ++added) {
    FileMetadata m;
    m.name = FileName(added);
    m.path = FolderPath(i % kFolders) + "/" + m.name;
    m.rev = "015f" + std::to_string(1000000 + added);
    m.size = 1;
    m.md5 = "0123456789abcdef0123456789abcdef";
    double start = NowUs();
    std::vector<std::string> folders;
    std::vector<FileInfo> files;
    store.GetFolderByPathIgnoreCase(Flip(FolderPath(i % kFolders)), &folders);
    store.GetFileByPathIgnoreCase(Flip(m.path), &files);
    lookup_us += NowUs() - start;
    start = NowUs();
    if (store.AddFile(&m) != 0) {
      fprintf(stderr, "AddFile failed\n");
      return 1;
    }
    insert_us += NowUs() - start;
  }
  printf("one file at a time at %d files: lookups %.1f us, AddFile %.1f us\n", added,
         lookup_us / kSingles, insert_us / kSingles);
  store.Close();
  printf("after close (checkpointed): db %lld KiB\n", FileSize(db_path) / 1024);
  return 0;
}

}  // namespace
