// How the safe profile answers a 429: the request waits what the service
// asked for and is sent again, a bounded number of times, so that a rate
// limit slows a run down instead of failing it, and no loop runs hot.
//
// The classic profile never waits: a 429 is a failure there like any other.
//
// Threads: any; the wait only reads the run flag.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace quillstone {
namespace dropbox {

// The wait when a 429 names none; the service's own SDK waits as long.
inline constexpr int kRetryAfterDefault = 5;
// A longer wait is not taken: the request fails as in one without retries,
// and the next run asks again.
inline constexpr int kLongestRetryWait = 120;
// 429s in a row for one request before it fails.
inline constexpr int kMostRetries = 5;

// The seconds in "error"."retry_after" of a 429's JSON body (which may end
// in a zero byte); 0 when the body names none, or a wait no int holds.
int RetryAfterOf(const std::vector<char>& body);

// Waits `seconds` (kRetryAfterDefault for 0 or less), in steps short enough
// to see a stop. False, at once, when the wait is over kLongestRetryWait or
// `attempt` (the 429s in a row so far, from 1) is over kMostRetries; false
// as soon as `running` is cleared; true when the request may be sent again.
bool WaitOutRetryAfter(int seconds, int attempt, const std::atomic<bool>& running,
                       const std::string& what);

}  // namespace dropbox
}  // namespace quillstone
