#define QS_SOURCE_NAME "src/retry_wait"

#include "retry_wait.h"

#include <json/json.h>
#include <stdint.h>
#include <time.h>

#include <cstring>
#include <memory>

#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

int RetryAfterOf(const std::vector<char>& body) {
  const char* begin = body.data();
  const char* end = begin + strnlen(begin, body.size());
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  if (begin == end || !reader->parse(begin, end, &root, nullptr) || !root.isObject()) return 0;
  const Json::Value& error = root["error"];
  if (!error.isObject()) return 0;
  const Json::Value& wait = error["retry_after"];
  if (!wait.isIntegral() || wait.asLargestInt() <= 0 || wait.asLargestInt() >= INT32_MAX) return 0;
  return static_cast<int>(wait.asLargestInt());
}

bool WaitOutRetryAfter(int seconds, int attempt, const std::atomic<bool>& running,
                       const std::string& what) {
  if (seconds <= 0) seconds = kRetryAfterDefault;
  if (seconds > kLongestRetryWait || attempt > kMostRetries) {
    QS_LOG(kLogError, "%s - the service asks to wait %d s (attempt %d); given up for this run",
           what.c_str(), seconds, attempt);
    return false;
  }
  QS_LOG(kLogNotice, "%s - too many requests, sent again in %d s", what.c_str(), seconds);
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    if (!running) return false;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double waited =
        static_cast<double>(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
    if (waited >= seconds) return true;
    PostponeTimedPoweroff();
    const struct timespec step = {0, 100 * 1000 * 1000};
    nanosleep(&step, nullptr);
  }
}

}  // namespace dropbox
}  // namespace quillstone
