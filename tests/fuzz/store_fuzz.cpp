// The store file as a damaged card may leave it: a valid database with some
// of its bytes overwritten. The input is a list of (offset, byte) edits.
// Opening must give a usable store (rebuilt when damaged), and no query may
// crash.
#include <sqlite3.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "file_metadata.h"
#include "filemetadatamanager.h"
#include "fuzz_support.h"

using quillstone::dropbox::FileInfo;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;

namespace {

std::string ReadAll(const std::string& path) {
  std::string out;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  fclose(f);
  return out;
}

// A store with folders, files of each status and parameters, made once.
const std::string& Seed() {
  static const std::string image = [] {
    std::string path = qs_fuzz::FuzzRoot() + "/seed.db";
    FileMetadataManager fm;
    fm.Init(path);
    std::vector<FileMetadata> files(6);
    std::vector<FileMetadata*> ptrs;
    const char* names[] = {"/a.txt",       "/Books/b.epub", "/Books/Deep/c.pdf",
                           "/\u00dcber/d", "/Books/e",      "/z"};
    for (size_t i = 0; i < files.size(); ++i) {
      files[i].path = names[i];
      files[i].rev = "01234567" + std::to_string(i);
      files[i].md5 = "md5-" + std::to_string(i);
      files[i].size = i * 1000;
      ptrs.push_back(&files[i]);
    }
    fm.AddFiles(ptrs);
    fm.SetFileStatus("/z", FileMetadataManager::kStatusFailed,
                     FileMetadataManager::kErrorRestrictedContent);
    fm.SetParam("account_id", "dbid:AAfuzz");
    fm.SetCursor("AAcursor");
    fm.Close();
    return ReadAll(path);
  }();
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Pages and small blocks from fixed pools rather than the allocator, which
  // the sanitizers make the dearest part of opening a connection.
  static char pages[64][4096 + 512];
  (void)sqlite3_config(SQLITE_CONFIG_PAGECACHE, pages, static_cast<int>(sizeof pages[0]), 64);
  (void)sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 512, 256);
  (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  Seed();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = qs_fuzz::FuzzRoot() + "/files.db";
  std::string image = Seed();
  for (size_t i = 0; i + 2 < size; i += 3) {
    size_t offset = (static_cast<size_t>(data[i]) << 8 | data[i + 1]) % image.size();
    image[offset] = static_cast<char>(data[i + 2]);
  }
  (void)remove((path + "-wal").c_str());
  (void)remove((path + "-shm").c_str());
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return 0;
  fwrite(image.data(), 1, image.size(), f);
  fclose(f);

  FileMetadataManager fm;
  (void)fm.Init(path);
  std::string value;
  (void)fm.GetParam("account_id", &value);
  (void)fm.GetParam("cursor", &value);
  std::vector<FileInfo> infos;
  (void)fm.GetFileByPathIgnoreCase("/books/B.EPUB", &infos);
  (void)fm.GetFilesByDir("/Books", 0, 10000, &infos);
  std::vector<std::string> folders;
  (void)fm.GetFolderByPathIgnoreCase("/BOOKS/deep", &folders);
  (void)fm.GetFoldersByDir("", 0, 10000, &folders);
  (void)fm.getFailedFiles();
  FileMetadataManager::ItemStatus status;
  FileMetadataManager::ItemError error;
  (void)fm.GetFileStatus("/a.txt", &status, &error);
  (void)fm.UpdateFoldersStatusAfterSync();
  fm.Close();
  return 0;
}
