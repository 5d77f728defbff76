// Fault injection for the host's fault tests (see FaultHit in host_common.h).
#include <stdlib.h>

#include <atomic>
#include <cstring>
#include <map>
#include <string>

#include "host_common.h"
#include "qs_log.h"

#define QS_SOURCE_NAME "platform/fault"

namespace quillstone {
namespace host {

namespace {

struct FaultPlan {
  // kind -> (the call to fail, calls so far)
  std::map<std::string, std::pair<long, std::atomic<long>>> kinds;

  FaultPlan() {
    const char* value = getenv("QUILLSTONE_FAULT");
    std::string text = value ? value : "";
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find(',', start);
      if (end == std::string::npos) end = text.size();
      std::string item = text.substr(start, end - start);
      size_t colon = item.find(':');
      if (colon != std::string::npos) {
        long nth = strtol(item.c_str() + colon + 1, nullptr, 10);
        kinds[item.substr(0, colon)].first = nth;
      }
      start = end + 1;
    }
  }
};

FaultPlan& Plan() {
  static FaultPlan* plan = new FaultPlan;  // read from any thread up to exit
  return *plan;
}

}  // namespace

bool FaultHit(const char* kind) {
  FaultPlan& plan = Plan();
  if (plan.kinds.empty()) return false;
  auto it = plan.kinds.find(kind);
  if (it == plan.kinds.end()) return false;
  long n = ++it->second.second;
  if (n != it->second.first) return false;
  QS_LOG(kLogError, "Injected fault: %s call %ld fails", kind, n);
  return true;
}

}  // namespace host
}  // namespace quillstone
