// Throughput of the content digest on a 100 MiB file, and the peak memory of
// the process while it runs. Reports figures only; it never judges them.
//
// Usage: digest_bench [folder]   (default: $TMPDIR or /tmp)

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "arbour_utilities.h"

using quillstone::utilities::ArbourUtilities;

int main(int argc, char** argv) {
  const char* tmp = getenv("TMPDIR");
  std::string folder = argc > 1 ? argv[1] : (tmp && *tmp ? tmp : "/tmp");
  std::string path = folder + "/digest_bench." + std::to_string(getpid());
  const size_t kFileBytes = 100u * 1024u * 1024u;

  // Written in pieces, so that the bench itself does not hold the file.
  FILE* out = fopen(path.c_str(), "wb");
  if (!out) {
    perror(path.c_str());
    return 1;
  }
  std::mt19937_64 random(42);
  std::vector<uint64_t> piece(1024 * 1024 / sizeof(uint64_t));
  for (size_t written = 0; written < kFileBytes; written += piece.size() * sizeof(uint64_t)) {
    for (uint64_t& word : piece) word = random();
    if (fwrite(piece.data(), sizeof(uint64_t), piece.size(), out) != piece.size()) {
      perror(path.c_str());
      fclose(out);
      unlink(path.c_str());
      return 1;
    }
  }
  fclose(out);

  struct rusage before;
  getrusage(RUSAGE_SELF, &before);
  // The first pass may read from the disk, later ones from the page cache.
  const int kPasses = 3;
  std::string first;
  for (int pass = 0; pass < kPasses; ++pass) {
    auto begin = std::chrono::steady_clock::now();
    std::string digest = ArbourUtilities::QuickMD5(path);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (pass == 0) first = digest;
    printf("pass %d: %s  %.1f MB/s\n", pass + 1, digest.c_str(),
           kFileBytes / 1e6 / (seconds > 0 ? seconds : 1e-9));
    if (digest != first) printf("pass %d: the digest changed between passes\n", pass + 1);
  }
  struct rusage after;
  getrusage(RUSAGE_SELF, &after);
  unlink(path.c_str());

  printf("peak RSS: %ld KiB (before digesting: %ld KiB)\n", after.ru_maxrss, before.ru_maxrss);
  return 0;
}
