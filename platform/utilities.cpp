#define QS_SOURCE_NAME "platform/utilities"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "arbour_utilities.h"
#include "host_common.h"
#include "qs_log.h"
#include "serialization_utils.h"
#include "signature.h"

namespace quillstone {
namespace utilities {

int ArbourUtilities::get_data(const unsigned char* block, size_t block_size, char* out,
                              size_t out_size) {
  if (!out || out_size == 0) return -1;
  out[0] = '\0';
  if (!block) return -1;
  size_t written = 0;
  for (size_t i = 0; i < block_size; ++i) {
    char c = static_cast<char>(block[i] ^ kDataMask[i % sizeof kDataMask]);
    if (c == '\0') {
      out[written] = '\0';
      return 0;
    }
    if (written + 1 == out_size) {
      out[written] = '\0';
      return -1;  // the text does not fit; what fits is there, zero-ended
    }
    out[written++] = c;
  }
  out[written] = '\0';
  return -1;  // a block without its closing zero is damaged
}

std::string SerializationUtils::ToBase64(const std::vector<unsigned char>& data) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < data.size(); i += 3) {
    unsigned int v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  size_t rest = data.size() - i;
  if (rest > 0) {
    unsigned int v = data[i] << 16;
    if (rest == 2) v |= data[i + 1] << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

namespace {

template <typename T>
int WriteRaw(const T& value, std::ostream& stream) {
  stream.write(reinterpret_cast<const char*>(&value), sizeof value);
  return stream ? 0 : -1;
}

template <typename T>
int ReadRaw(std::istream& stream, T* value) {
  if (!value) return -1;
  T read_value;
  stream.read(reinterpret_cast<char*>(&read_value), sizeof read_value);
  if (!stream || stream.gcount() != static_cast<std::streamsize>(sizeof read_value)) return -1;
  *value = read_value;
  return 0;
}

}  // namespace

int SerializationUtils::SerializeInt32(int value, std::ostream& stream) {
  return WriteRaw(static_cast<int32_t>(value), stream);
}

int SerializationUtils::DeserializeInt32(std::istream& stream, int* value) {
  int32_t read_value = 0;
  if (!value || ReadRaw(stream, &read_value) != 0) return -1;
  *value = read_value;
  return 0;
}

int SerializationUtils::SerializePointer(void* value, std::ostream& stream) {
  return WriteRaw(value, stream);
}

int SerializationUtils::DeserializePointer(std::istream& stream, void** value) {
  return ReadRaw(stream, value);
}

std::string Signature::GenerateNonce() {
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof bytes) {
    ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  if (got < sizeof bytes) {
    // No random source: still never repeat within a process or across
    // processes started at different times, which is what the caller needs.
    static std::atomic<unsigned long long> counter{0};
    QS_LOG(kLogError, "no random source (%s); the nonce is only unique", strerror(errno));
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    unsigned long long parts[2] = {
        static_cast<unsigned long long>(ts.tv_sec) * 1000000000ull + ts.tv_nsec,
        (static_cast<unsigned long long>(getpid()) << 32) ^ counter++};
    memcpy(bytes, parts, sizeof bytes);
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string nonce;
  for (unsigned char b : bytes) {
    nonce.push_back(kDigits[b >> 4]);
    nonce.push_back(kDigits[b & 15]);
  }
  return nonce;
}

}  // namespace utilities
}  // namespace quillstone
