// browser.app: the stand-in for the device's web browser in log-ins.
//
//   browser.app URL [-img LOGO.bmp]
//
// It really browses: HTTPS through libcurl, trusting only the device's CA
// bundle, following redirects one by one and submitting forms. Every address
// it goes to is reported to the program that started it (the channel of
// BrowserAuthorization), before it is loaded, as a browser's address bar
// changes before the page arrives.
//
// The person at the device is played from the settings file
// /var/run/person.cfg under the root (host_device.h): on a page with a form
// "allow" presses the button with id "allow", "deny" the one with id
// "deny"; "close" closes the browser once the first page is shown; "idle"
// does nothing for idle_ms and then closes it. A page that offers no such
// button, or that cannot be loaded, is closed. "interactive" is for a person
// at a host: it prints the address to open in a desktop browser and reads
// the addresses the person lands on from standard input, one per line; an
// empty line or the end of input closes the browser.
//
// SIGTERM ends it (the watcher's way of closing it); SIGUSR1 brings it to
// the front, which here is only logged. Exit status 0 when the browser was
// closed, 2 on a usage error.
#define QS_SOURCE_NAME "tools/browser.app"

#include <curl/curl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "curl_transport.h"
#include "device_root.h"
#include "host_device.h"
#include "qs_log.h"
#include "split_path.h"
#include "tessera.h"
#include "url.h"

using quillstone::kLogError;
using quillstone::kLogInfo;
using quillstone::kLogNotice;

using quillstone::utilities::DevicePath;
using quillstone::utilities::RedactUrl;

namespace {

constexpr int kMaxHops = 20;
constexpr size_t kMaxPageBytes = 4u * 1024u * 1024u;

void OnFocus(int) {
  static const char kText[] = "browser.app: brought to the front\n";
  (void)!write(STDERR_FILENO, kText, sizeof kText - 1);
}

struct Person {
  std::string browser = "allow";
  int idle_ms = 0;
};

Person ReadPerson() {
  Person person;
  void* config = OpenConfig(DevicePath(quillstone::host::kPersonSettings).c_str(), 0);
  const char* browser = ReadString(config, "browser", "allow");
  person.browser = browser ? browser : "allow";
  person.idle_ms = ReadInt(config, "idle_ms", 0);
  CloseConfigNoSave(config);
  return person;
}

struct Page {
  long status = 0;
  std::string location;  // of a redirect
  std::string body;
  std::string error;  // why nothing could be loaded
};

size_t Collect(char* data, size_t size, size_t count, void* user) {
  std::string* body = static_cast<std::string*>(user);
  if (body->size() + size * count > kMaxPageBytes) return 0;
  body->append(data, size * count);
  return size * count;
}

// One request, redirects not followed: the caller reports each hop.
Page Load(const std::string& url, const std::string& form) {
  Page page;
  CURL* curl = curl_easy_init();
  if (!curl) {
    page.error = "no curl handle";
    return page;
  }
  char error_text[CURL_ERROR_SIZE] = {0};
  // The device's trust, time-outs and proxy; redirects are followed one by
  // one here, so that each address is reported.
  (void)quillstone::utilities::SetTransportOptions(curl, false);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_text);
  curl_easy_setopt(curl, CURLOPT_USERAGENT, "browser.app (host stand-in)");
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &page.body);
  if (!form.empty()) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, form.c_str());
  }
  const CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK) {
    page.error = error_text[0] ? error_text : curl_easy_strerror(result);
  } else {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &page.status);
    char* location = nullptr;
    curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &location);
    if (location && page.status >= 300 && page.status < 400) page.location = location;
  }
  curl_easy_cleanup(curl);
  return page;
}

std::string Resolve(const std::string& base, const std::string& target) {
  if (target.find("://") != std::string::npos) return target;
  const quillstone::utilities::Url url(base);
  const std::string origin = url.scheme_ + "://" + url.host_;
  if (!target.empty() && target[0] == '/') return origin + target;
  std::string folder;
  (void)quillstone::utilities::SplitPath(url.path_, &folder, nullptr);
  return origin + folder + "/" + target;
}

std::string Unescape(const std::string& text) {
  static const std::map<std::string, std::string> kEntities = {{"&amp;", "&"}, {"&quot;", "\""},
                                                               {"&lt;", "<"},  {"&gt;", ">"},
                                                               {"&#39;", "'"}, {"&#x27;", "'"}};
  std::string out;
  for (size_t i = 0; i < text.size();) {
    bool replaced = false;
    if (text[i] == '&') {
      for (const auto& entity : kEntities) {
        if (text.compare(i, entity.first.size(), entity.first) == 0) {
          out += entity.second;
          i += entity.first.size();
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) out += text[i++];
  }
  return out;
}

// Attributes of the tag that starts at `html[pos]` ("<input ...>").
std::map<std::string, std::string> Attributes(const std::string& html, size_t pos, size_t* end) {
  std::map<std::string, std::string> attributes;
  size_t close = html.find('>', pos);
  if (close == std::string::npos) close = html.size();
  *end = close;
  size_t i = html.find_first_of(" \t\r\n", pos);
  while (i != std::string::npos && i < close) {
    while (i < close && strchr(" \t\r\n/", html[i])) ++i;
    const size_t name_start = i;
    while (i < close && !strchr(" \t\r\n=/", html[i])) ++i;
    std::string name = html.substr(name_start, i - name_start);
    std::string value;
    if (i < close && html[i] == '=') {
      ++i;
      if (i < close && (html[i] == '"' || html[i] == '\'')) {
        const char quote = html[i++];
        const size_t value_end = html.find(quote, i);
        const size_t stop = value_end == std::string::npos || value_end > close ? close : value_end;
        value = html.substr(i, stop - i);
        i = stop + 1;
      } else {
        const size_t value_start = i;
        while (i < close && !strchr(" \t\r\n", html[i])) ++i;
        value = html.substr(value_start, i - value_start);
      }
    }
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!name.empty()) attributes[name] = Unescape(value);
    if (name.empty() && i < close) ++i;
  }
  return attributes;
}

std::string FormEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (isalnum(c) || strchr("-._~", c)) {
      out += static_cast<char>(c);
    } else if (c == ' ') {
      out += '+';
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// The submission of the form on `html` through the button with id `button`:
// its address and form body. False when the page has no such button.
bool PressButton(const std::string& page_url, const std::string& html, const std::string& button,
                 std::string* action, std::string* form) {
  const size_t form_start = html.find("<form");
  if (form_start == std::string::npos) return false;
  size_t end = 0;
  std::map<std::string, std::string> form_attributes = Attributes(html, form_start, &end);
  const size_t form_end = html.find("</form>", end);
  std::string fields;
  bool pressed = false;
  for (size_t pos = html.find('<', end); pos != std::string::npos && pos < form_end;
       pos = html.find('<', end)) {
    std::map<std::string, std::string> a = Attributes(html, pos, &end);
    std::string pair;
    if (html.compare(pos, 6, "<input") == 0 && a["type"] == "hidden" && !a["name"].empty()) {
      pair = FormEncode(a["name"]) + "=" + FormEncode(a["value"]);
    } else if (html.compare(pos, 7, "<select") == 0 && !a["name"].empty()) {
      // The selected option, else the first: what a person who leaves the
      // choice alone sends.
      const size_t select_end = html.find("</select>", end);
      std::string chosen;
      bool have_choice = false;
      size_t option_end = end;
      for (size_t option = html.find("<option", end);
           option != std::string::npos && option < select_end && option < form_end;
           option = html.find("<option", option_end)) {
        std::map<std::string, std::string> o = Attributes(html, option, &option_end);
        if (!have_choice || o.count("selected")) chosen = o["value"];
        if (o.count("selected")) break;
        have_choice = true;
      }
      pair = FormEncode(a["name"]) + "=" + FormEncode(chosen);
    } else if (html.compare(pos, 7, "<button") == 0 && a["id"] == button) {
      pressed = true;
      if (!a["name"].empty()) pair = FormEncode(a["name"]) + "=" + FormEncode(a["value"]);
    }
    if (!pair.empty()) fields += (fields.empty() ? "" : "&") + pair;
  }
  if (!pressed) return false;
  *action =
      Resolve(page_url, form_attributes["action"].empty() ? page_url : form_attributes["action"]);
  *form = fields;
  return true;
}

void Report(const std::string& kind, const std::string& text) {
  if (quillstone::host::ReportBrowserEvent(kind, text) != 0) {
    QS_LOG(kLogError, "nobody watches this browser; event %s not delivered", kind.c_str());
  }
}

int Browse(const std::string& start, const Person& person) {
  std::string url = start;
  std::string form;
  for (int hop = 0; hop < kMaxHops; ++hop) {
    Report("url", url);
    const Page page = Load(url, form);
    form.clear();
    if (!page.error.empty()) {
      QS_LOG(kLogError, "cannot load %s: %s", RedactUrl(url).c_str(), page.error.c_str());
      Report("error", page.error);
      break;
    }
    QS_LOG(kLogInfo, "%s answered %ld", RedactUrl(url).c_str(), page.status);
    if (!page.location.empty()) {
      url = Resolve(url, page.location);
      continue;
    }
    if (person.browser == "idle") {
      usleep(static_cast<useconds_t>(person.idle_ms > 0 ? person.idle_ms : 0) * 1000u);
      break;
    }
    std::string action;
    if ((person.browser == "allow" || person.browser == "deny") && page.status == 200 &&
        PressButton(url, page.body, person.browser, &action, &form)) {
      QS_LOG(kLogInfo, "the person presses \"%s\"", person.browser.c_str());
      url = action;
      continue;
    }
    break;  // "close", or nothing on the page to press
  }
  QS_LOG(kLogNotice, "the person closes the browser");
  return 0;
}

int Interactive(const std::string& start) {
  Report("url", start);
  fprintf(stderr,
          "\nOpen this address in a desktop browser and log in:\n\n  %s\n\n"
          "Then paste here the address the browser lands on (an empty line closes):\n",
          start.c_str());
  std::string line;
  while (std::getline(std::cin, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (line.empty()) break;
    Report("url", line);
    fprintf(stderr, "Another address, or an empty line to close:\n");
  }
  QS_LOG(kLogNotice, "the person closes the browser");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && strcmp(argv[2], "-img") == 0)) {
    fprintf(stderr, "usage: browser.app URL [-img LOGO.bmp]\n");
    return 2;
  }
  signal(SIGUSR1, OnFocus);
  signal(SIGPIPE, SIG_IGN);  // a watcher that has gone shows as a failed report
  if (argc == 4) {
    char header[2] = {0, 0};
    FILE* logo = fopen(argv[3], "rb");
    const bool bmp = logo && fread(header, 1, 2, logo) == 2 && header[0] == 'B' && header[1] == 'M';
    if (logo) fclose(logo);
    QS_LOG(bmp ? kLogInfo : kLogError, "logo %s: %s", argv[3],
           bmp ? "a BMP file" : "not a BMP file");
  }
  quillstone::utilities::InitCurlOnce();
  const Person person = ReadPerson();
  QS_LOG(kLogNotice, "the person will %s", person.browser.c_str());
  const int status =
      person.browser == "interactive" ? Interactive(argv[1]) : Browse(argv[1], person);
  curl_global_cleanup();
  return status;
}
