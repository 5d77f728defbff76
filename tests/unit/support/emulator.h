// The Dropbox API emulator as a child of a unit test, with the test's device
// root pointed at it and trusting its CA alone.
#pragma once

#include <sys/types.h>

#include <string>

namespace qs_test {

class Emulator {
 public:
  // Starts tools/dropbox_emulator/run on a free port with one account
  // ("tester", kToken) and writes the root's service settings and CA bundle.
  Emulator();
  ~Emulator();  // stops it
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  bool ok() const { return pid_ > 0 && !admin_url_.empty(); }

  // One call of the admin API at admin_url + "/" + op: a POST of `json`, or
  // a GET when `json` is empty ("log?since=3"). The HTTP code, or -1 without
  // an answer; the body goes to *reply.
  int Admin(const std::string& op, const std::string& json, std::string* reply = nullptr);

  static const char kAccount[];
  static const char kToken[];

 private:
  pid_t pid_;
  std::string admin_url_;
};

}  // namespace qs_test
