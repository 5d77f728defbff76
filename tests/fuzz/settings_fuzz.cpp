// Settings files as any bytes a damaged card may hold: reading never fails,
// and a value written over any content reads back after saving.
#include <stdio.h>
#include <string.h>

#include <string>

#include "device_names.h"
#include "fuzz_support.h"
#include "tessera.h"

using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kSyncErrorKey;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_fuzz::FuzzRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = qs_fuzz::FuzzRoot() + "/dropbox.cfg";
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return 0;
  fwrite(data, 1, size, f);
  fclose(f);

  void* config = OpenConfig(path.c_str(), nullptr);
  (void)ReadString(config, "sync_folder", "");
  (void)ReadSecret(config, kAccessTokenKey, "");
  (void)ReadInt(config, kSyncErrorKey, 0);
  WriteString(config, "plain", "a value = with [brackets]");
  WriteSecret(config, kAccessTokenKey, "sl.token\n\"quoted\"");
  CloseConfig(config);

  config = OpenConfig(path.c_str(), nullptr);
  if (strcmp(ReadString(config, "plain", ""), "a value = with [brackets]") != 0 ||
      strcmp(ReadSecret(config, kAccessTokenKey, ""), "sl.token\n\"quoted\"") != 0) {
    __builtin_trap();
  }
  CloseConfigNoSave(config);
  return 0;
}
