// Settings files: plain UTF-8 text, one "key=value" a line, "#" comments.
//
// Escapes: "\\" backslash, "\n" line feed, "\r" carriage return, "\xHH" any
// other byte; keys escape "=", "#", spaces and tabs that way too, and a value
// escapes its leading blanks, so that a hand-written "key = value" reads as
// "value" while every value written here comes back byte for byte.
// Secrets are stored as "!secret:" followed by base64 of the bytes XOR-ed with
// kSecretMask (cycled); it keeps tokens out of plain sight, nothing more.
#define QS_SOURCE_NAME "platform/settings"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host_common.h"
#include "host_device.h"
#include "qs_log.h"
#include "serialization_utils.h"
#include "tessera.h"

using quillstone::kLogError;

namespace {

constexpr size_t kMaxSettingsBytes = 1u << 20;  // larger files are refused, not half read
constexpr char kSecretPrefix[] = "!secret:";
constexpr unsigned char kSecretMask[16] = {0x9e, 0x37, 0x79, 0xb9, 0x7f, 0x4a, 0x7c, 0x15,
                                           0xf3, 0x9c, 0xc0, 0x60, 0x5a, 0x82, 0x11, 0xd4};

struct Value {
  std::string stored;                  // the text as held in the file
  std::unique_ptr<std::string> plain;  // the deciphered secret, made on the first ReadSecret
};

struct Settings {
  std::string path;
  std::map<std::string, std::unique_ptr<Value>> entries;
  // Values that were replaced or deleted. A caller may still hold their text,
  // which must live until the handle is closed.
  std::vector<std::unique_ptr<Value>> retired;
  bool changed = false;
};

Settings* AsSettings(void* handle) { return static_cast<Settings*>(handle); }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Unescape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '\\' || i + 1 == text.size()) {
      out.push_back(c);
      continue;
    }
    char next = text[i + 1];
    if (next == '\\') {
      out.push_back('\\');
      ++i;
    } else if (next == 'n') {
      out.push_back('\n');
      ++i;
    } else if (next == 'r') {
      out.push_back('\r');
      ++i;
    } else if (next == 'x' && i + 3 < text.size() && HexDigit(text[i + 2]) >= 0 &&
               HexDigit(text[i + 3]) >= 0) {
      out.push_back(static_cast<char>(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3])));
      i += 3;
    } else {
      out.push_back(c);  // an unknown escape stays as written
    }
  }
  return out;
}

void AppendHexEscape(std::string* out, unsigned char c) {
  static const char kDigits[] = "0123456789abcdef";
  out->append("\\x");
  out->push_back(kDigits[c >> 4]);
  out->push_back(kDigits[c & 15]);
}

std::string Escape(const std::string& text, bool is_key) {
  std::string out;
  out.reserve(text.size() + 8);
  bool leading = true;
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c != ' ' && c != '\t') leading = false;
    if (c == '\\') {
      out.append("\\\\");
    } else if (c == '\n') {
      out.append("\\n");
    } else if (c == '\r') {
      out.append("\\r");
    } else if (c < 0x20 && c != '\t') {
      AppendHexEscape(&out, c);
    } else if (is_key && (c == '=' || c == '#' || c == ' ' || c == '\t')) {
      AppendHexEscape(&out, c);
    } else if (!is_key && leading && (c == ' ' || c == '\t')) {
      AppendHexEscape(&out, c);
    } else {
      out.push_back(ch);
    }
  }
  return out;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string Trim(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

void Parse(const std::string& content, Settings* settings) {
  size_t pos = 0;
  int line_number = 0;
  if (content.compare(0, 3, "\xEF\xBB\xBF") == 0) pos = 3;  // a byte order mark from an editor
  while (pos < content.size()) {
    size_t end = content.find('\n', pos);
    if (end == std::string::npos) end = content.size();
    std::string line = content.substr(pos, end - pos);
    pos = end + 1;
    ++line_number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::string trimmed = Trim(line);
    if (trimmed.empty() || trimmed[0] == '#') continue;
    size_t equals = line.find('=');
    if (equals == std::string::npos) {
      QS_LOG(kLogError, "%s:%d: ignoring a line without '=' (%zu bytes)", settings->path.c_str(),
             line_number, line.size());
      continue;
    }
    std::string key = Unescape(Trim(line.substr(0, equals)));
    if (key.empty()) {
      QS_LOG(kLogError, "%s:%d: ignoring a line with an empty key", settings->path.c_str(),
             line_number);
      continue;
    }
    size_t value_begin = equals + 1;
    while (value_begin < line.size() && IsBlank(line[value_begin])) ++value_begin;
    std::unique_ptr<Value> value(new Value);
    value->stored = Unescape(line.substr(value_begin));
    settings->entries[key] = std::move(value);  // a repeated key: the last line wins
  }
}

std::string Serialize(const Settings& settings) {
  std::string out;
  for (const auto& entry : settings.entries) {
    out += Escape(entry.first, true);
    out += '=';
    out += Escape(entry.second->stored, false);
    out += '\n';
  }
  return out;
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool FromBase64(const std::string& text, std::vector<unsigned char>* bytes) {
  bytes->clear();
  if (text.size() % 4 != 0) return false;
  unsigned int accumulator = 0;
  int bits = 0;
  size_t padding = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '=') {
      if (i + 2 < text.size()) return false;
      ++padding;
      continue;
    }
    if (padding > 0) return false;
    int v = Base64Value(c);
    if (v < 0) return false;
    accumulator = (accumulator << 6) | static_cast<unsigned int>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes->push_back(static_cast<unsigned char>((accumulator >> bits) & 0xff));
    }
  }
  return true;
}

std::string EncodeSecret(const char* value) {
  std::vector<unsigned char> bytes;
  for (size_t i = 0; value[i] != '\0'; ++i) {
    bytes.push_back(static_cast<unsigned char>(value[i]) ^ kSecretMask[i % sizeof kSecretMask]);
  }
  return kSecretPrefix + quillstone::utilities::SerializationUtils::ToBase64(bytes);
}

// False when the stored text claims to be a secret but is damaged.
bool DecodeSecret(const std::string& stored, std::string* plain) {
  size_t prefix = sizeof kSecretPrefix - 1;
  if (stored.compare(0, prefix, kSecretPrefix) != 0) {
    *plain = stored;  // written by hand in plain text; take it as it stands
    return true;
  }
  std::vector<unsigned char> bytes;
  if (!FromBase64(stored.substr(prefix), &bytes)) return false;
  plain->clear();
  for (size_t i = 0; i < bytes.size(); ++i) {
    unsigned char c = bytes[i] ^ kSecretMask[i % sizeof kSecretMask];
    if (c == '\0') return false;
    plain->push_back(static_cast<char>(c));
  }
  return true;
}

Value* Find(Settings* settings, const char* key) {
  if (!settings || !key) return nullptr;
  auto it = settings->entries.find(key);
  return it == settings->entries.end() ? nullptr : it->second.get();
}

void Store(Settings* settings, const char* key, const std::string& stored) {
  auto it = settings->entries.find(key);
  if (it != settings->entries.end()) {
    if (it->second->stored == stored) return;
    settings->retired.push_back(std::move(it->second));
  }
  std::unique_ptr<Value> value(new Value);
  value->stored = stored;
  settings->entries[key] = std::move(value);
  settings->changed = true;
}

// A file with a token, a secret or a code in it is for its owner's eyes only.
bool HoldsSecret(const Settings& settings) {
  for (const auto& entry : settings.entries) {
    const std::string& key = entry.first;
    if (entry.second->stored.compare(0, sizeof kSecretPrefix - 1, kSecretPrefix) == 0 ||
        key.find("token") != std::string::npos || key.find("secret") != std::string::npos ||
        key.find("code") != std::string::npos) {
      return true;
    }
  }
  return false;
}

int Save(Settings* settings) {
  int err = quillstone::host::ReplaceFile(settings->path, Serialize(*settings), true,
                                          HoldsSecret(*settings) ? 0600 : 0644);
  if (err != 0) {
    // The file on disk keeps its old content; the changes stay pending.
    QS_LOG(kLogError, "cannot save %s: %s", settings->path.c_str(), strerror(err));
    return err;
  }
  settings->changed = false;
  return 0;
}

}  // namespace

extern "C" {

void* OpenConfig(const char* path, void* defaults) {
  if (!path || !*path) return nullptr;
  std::string content;
  int err = quillstone::host::ReadWholeFile(path, kMaxSettingsBytes, &content);
  if (err != 0 && err != ENOENT && err != ENOTDIR) {
    QS_LOG(kLogError, "cannot read settings %s: %s", path, strerror(err));
    return nullptr;
  }
  Settings* settings = new Settings;
  settings->path = path;
  Parse(content, settings);
  if (Settings* base = AsSettings(defaults)) {
    // Defaults fill the keys the file lacks; they are no change to save.
    for (const auto& entry : base->entries) {
      if (settings->entries.count(entry.first)) continue;
      std::unique_ptr<Value> value(new Value);
      value->stored = entry.second->stored;
      settings->entries[entry.first] = std::move(value);
    }
  }
  return settings;
}

void CloseConfig(void* handle) {
  Settings* settings = AsSettings(handle);
  if (!settings) return;
  if (settings->changed) (void)Save(settings);
  delete settings;
}

void CloseConfigNoSave(void* handle) { delete AsSettings(handle); }

void SaveConfig(void* handle) { (void)quillstone::host::SaveSettings(handle); }

const char* ReadString(void* handle, const char* key, const char* deflt) {
  Value* value = Find(AsSettings(handle), key);
  return value ? value->stored.c_str() : deflt;
}

const char* ReadSecret(void* handle, const char* key, const char* deflt) {
  Settings* settings = AsSettings(handle);
  Value* value = Find(settings, key);
  if (!value) return deflt;
  if (!value->plain) {
    std::unique_ptr<std::string> plain(new std::string);
    if (!DecodeSecret(value->stored, plain.get())) {
      QS_LOG(kLogError, "%s: the secret of \"%s\" is damaged; using the default",
             settings->path.c_str(), key);
      return deflt;
    }
    value->plain = std::move(plain);
  }
  return value->plain->c_str();
}

int ReadInt(void* handle, const char* key, int deflt) {
  Value* value = Find(AsSettings(handle), key);
  if (!value) return deflt;
  const char* text = value->stored.c_str();
  char* end = nullptr;
  errno = 0;
  long number = strtol(text, &end, 0);
  // An empty or non-numeric value counts as absent: the key was cleared.
  if (end == text || errno == ERANGE || number < INT32_MIN || number > INT32_MAX) return deflt;
  return static_cast<int>(number);
}

void WriteString(void* handle, const char* key, const char* value) {
  Settings* settings = AsSettings(handle);
  if (!settings || !key || !*key) return;
  Store(settings, key, value ? value : "");
}

void WriteSecret(void* handle, const char* key, const char* value) {
  Settings* settings = AsSettings(handle);
  if (!settings || !key || !*key) return;
  Store(settings, key, EncodeSecret(value ? value : ""));
}

void DeleteString(void* handle, const char* key) {
  Settings* settings = AsSettings(handle);
  if (!settings || !key) return;
  auto it = settings->entries.find(key);
  if (it == settings->entries.end()) return;
  settings->retired.push_back(std::move(it->second));
  settings->entries.erase(it);
  settings->changed = true;
}

}  // extern "C"

namespace quillstone {
namespace host {

int SaveSettings(void* handle) {
  Settings* settings = AsSettings(handle);
  if (!settings) return EINVAL;
  // A handle of a missing file is saved even unchanged, so that the file
  // comes to exist; an unchanged existing file is left alone, so that an
  // idle handle never overwrites another writer's newer save.
  if (!settings->changed && access(settings->path.c_str(), F_OK) == 0) return 0;
  return Save(settings);
}

}  // namespace host
}  // namespace quillstone
