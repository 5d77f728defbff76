// A seeded random fuzzing loop with libFuzzer's entry points and flags, for
// builds without libFuzzer (gcc, the sanitizer build in CI):
//
//   listing_fuzz -runs=N -seed=S CORPUS_DIR...
//
// Each input is a seed file of the corpus, mutated by a few random edits
// (bit flips, byte runs, inserted tokens that parsers care about, splices
// of another seed, truncation). A crash or a sanitizer's abort ends the
// program as under libFuzzer, after writing the input to ./crash-input, which
// the same program replays when given as a file instead of a folder.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

// Bytes that JSON and settings parsers branch on.
// clang-format off
const char* const kTokens[] = {
    "{", "}", "[", "]", ",", ":", "\"", "\\u0000", "null", "true", "false", "-1", "1e309",
    "18446744073709551616", "0", "\"\"", "\".tag\"", "\"entries\"", "\"has_more\"", "\"cursor\"",
    "\"size\"", "\"error\"", "\xff", "\xc3\xa9", "=", "\n", "[section]", "#", "'", "\\"};
// clang-format on

// The input in hand, for the crash handler.
const char* g_input = nullptr;
size_t g_input_size = 0;

void SaveInputAndDie(int sig) {
  int fd = open("crash-input", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) {
    ssize_t ignored = write(fd, g_input, g_input_size);
    (void)ignored;
    close(fd);
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

std::string ReadFile(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

void RunOne(const std::string& input) {
  g_input = input.data();
  g_input_size = input.size();
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

std::vector<std::string> LoadCorpus(const std::vector<std::string>& dirs) {
  std::vector<std::string> seeds;
  for (const std::string& dir : dirs) {
    DIR* d = opendir(dir.c_str());
    if (!d) continue;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') names.push_back(dir + "/" + e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());  // the same order on every machine
    for (const std::string& name : names) seeds.push_back(ReadFile(name));
  }
  if (seeds.empty()) seeds.push_back("");
  return seeds;
}

std::string Mutate(std::string input, const std::vector<std::string>& seeds, std::mt19937_64& rng) {
  auto pick = [&rng](size_t n) { return n == 0 ? 0 : static_cast<size_t>(rng() % n); };
  int edits = 1 + static_cast<int>(pick(6));
  for (int i = 0; i < edits; ++i) {
    size_t at = pick(input.size() + 1);
    switch (pick(7)) {
      case 0:
        if (!input.empty()) input[pick(input.size())] ^= static_cast<char>(1u << pick(8));
        break;
      case 1:
        if (!input.empty()) input[pick(input.size())] = static_cast<char>(pick(256));
        break;
      case 2:
        input.insert(at, kTokens[pick(sizeof kTokens / sizeof kTokens[0])]);
        break;
      case 3:
        input.erase(at, pick(16));
        break;
      case 4: {
        const std::string& other = seeds[pick(seeds.size())];
        size_t from = pick(other.size() + 1);
        input.insert(at, other.substr(from, pick(64)));
        break;
      }
      case 5:
        input.insert(at, std::string(1 + pick(8), static_cast<char>(pick(256))));
        break;
      default:
        input.resize(pick(input.size() + 1));
        break;
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  long long runs = 10000;
  unsigned long long seed = 1;
  std::vector<std::string> dirs;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "-runs=", 6) == 0) {
      runs = atoll(argv[i] + 6);
    } else if (strncmp(argv[i], "-seed=", 6) == 0) {
      seed = strtoull(argv[i] + 6, nullptr, 10);
    } else if (argv[i][0] != '-') {
      dirs.push_back(argv[i]);
    }
  }
  struct stat st;
  if (dirs.size() == 1 && stat(dirs[0].c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    RunOne(ReadFile(dirs[0]));  // replay of one input
    return 0;
  }
  for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) signal(sig, SaveInputAndDie);
  std::vector<std::string> seeds = LoadCorpus(dirs);
  std::mt19937_64 rng(seed);
  for (const std::string& s : seeds) RunOne(s);
  for (long long run = 0; run < runs; ++run)
    RunOne(Mutate(seeds[rng() % seeds.size()], seeds, rng));
  printf("%s: %lld inputs, seed %llu, %zu corpus files, no crash\n", argv[0], runs, seed,
         seeds.size());
  return 0;
}
