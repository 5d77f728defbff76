#include "support/emulator.h"

#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "device_names.h"
#include "device_root.h"
#include "http_request.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kServiceSettingsFile;

namespace qs_test {

const char Emulator::kAccount[] = "tester";
const char Emulator::kToken[] = "unit-test-token-0123456789";

Emulator::Emulator() : pid_(-1) {
  DeviceRoot();
  const char* source = getenv("QS_SOURCE_DIR");
  std::string run = std::string(source ? source : ".") + "/tools/dropbox_emulator/run";
  std::string data = MakeTempDir("emulator");
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    std::string account = std::string(kAccount) + ":" + kToken;
    execl("/usr/bin/python3", "python3", run.c_str(), "--port", "0", "--data-dir", data.c_str(),
          "--account", account.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  FILE* in = fdopen(out[0], "r");
  char line[8192];
  bool got = in != nullptr && fgets(line, sizeof line, in) != nullptr;
  if (in != nullptr) fclose(in);
  Json::Value info;
  if (!got || !Json::Reader().parse(line, info) || !info.isObject()) return;

  WriteSettings(kServiceSettingsFile, {{"api_url", info["api_url"].asString()},
                                       {"content_url", info["content_url"].asString()}});
  std::string bundle = quillstone::utilities::DevicePath("/etc/ssl/certs/ca-certificates.crt");
  te_buildpath(bundle.c_str());
  WriteFile(bundle, ReadFile(info["ca_file"].asString()));
  WriteSettings(kDropboxSettingsFile, {{kAccessTokenKey, kToken}});
  admin_url_ = info["admin_url"].asString();
}

Emulator::~Emulator() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

int Emulator::Admin(const std::string& op, const std::string& json, std::string* reply) {
  quillstone::utilities::HttpRequest request(json.empty() ? "GET" : "POST", admin_url_ + "/" + op);
  if (!json.empty()) {
    request.AddPostData(json);
    request.AddHeader("Content-Type", "application/json");
  }
  quillstone::utilities::HttpRequestRunner runner;
  long code = 0;
  std::vector<char> body;
  if (runner.PerformRequest(request, &code, &body) != 0) return -1;
  if (reply != nullptr) reply->assign(body.begin(), body.end());
  return static_cast<int>(code);
}

}  // namespace qs_test
