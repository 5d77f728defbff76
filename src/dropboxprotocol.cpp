#define QS_SOURCE_NAME "src/dropboxprotocol"

#include "dropboxprotocol.h"

#include <ctype.h>
#include <time.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <sstream>
#include <utility>

#include "arbour_utilities.h"
#include "configuration.h"
#include "device_root.h"
#include "qs_log.h"
#include "retry_wait.h"
#include "serialization_utils.h"
#include "signature.h"
#include "tessera.h"

namespace quillstone {

namespace {

constexpr char kDefaultApiUrl[] = "https://api.dropboxapi.com/2";
constexpr char kDefaultContentUrl[] = "https://content.dropboxapi.com/2";
constexpr char kDefaultAuthorizeUrl[] = "https://www.dropbox.com/oauth2/authorize";
constexpr char kDefaultTokenUrl[] = "https://api.dropboxapi.com/oauth2/token";

}  // namespace

ServerUrls::ServerUrls()
    : api_url(dropbox::ReadServiceSetting("api_url", kDefaultApiUrl)),
      rpc_url(api_url),
      content_url(dropbox::ReadServiceSetting("content_url", kDefaultContentUrl)) {}

namespace dropbox {

std::string oauth_consumer_key;
std::string oauth_consumer_secret;
std::string oauth_signature_method;
std::string oauth_redirect_uri = QS_REDIRECT_URI;

namespace {

using utilities::ArbourUtilities;
using utilities::MakeDataBlock;

constexpr int kPartnerVarnholt = 13;

constexpr auto kAppKeyBlock = MakeDataBlock(QS_APP_KEY);
constexpr auto kAppSecretBlock = MakeDataBlock(QS_APP_SECRET);
constexpr auto kPartnerAppKeyBlock = MakeDataBlock(QS_PARTNER_APP_KEY);
constexpr auto kPartnerAppSecretBlock = MakeDataBlock(QS_PARTNER_APP_SECRET);
constexpr auto kSignatureMethodBlock = MakeDataBlock("HMAC-SHA1");

constexpr size_t kKeyOutputSize = 16;
constexpr size_t kSignatureMethodOutputSize = 10;

std::string SettingsPath() { return utilities::DevicePath(kDropboxSettingsFile); }

template <size_t N>
std::string Decode(const utilities::DataBlock<N>& block, size_t output_size) {
  char buffer[kKeyOutputSize] = {0};
  if (output_size > sizeof(buffer)) output_size = sizeof(buffer);
  if (ArbourUtilities::get_data(block.bytes, N, buffer, output_size) != 0) buffer[0] = '\0';
  buffer[output_size - 1] = '\0';  // whatever get_data did, the text ends in the buffer
  return buffer;
}

// Replies that are JSON but not an object are looked into as if they were
// empty: indexing such a value would throw.
const Json::Value& AsObject(const Json::Value& value) {
  static const Json::Value kNull;
  return value.isObject() ? value : kNull;
}

std::string NullToEmptyText(const char* text) { return text ? text : ""; }

}  // namespace

std::string ReadServiceSetting(const std::string& key, const std::string& deflt) {
  const std::string path = utilities::DevicePath(kServiceSettingsFile);
  void* config = OpenConfig(path.c_str(), 0);
  const char* value = ReadString(config, key.c_str(), deflt.c_str());
  std::string result = value ? value : deflt;
  CloseConfigNoSave(config);
  return result;
}

std::string JsonValueToString(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
    case Json::stringValue:
    case Json::booleanValue:
      return value.asString();
    case Json::intValue:
      return std::to_string(value.asInt64());
    default:
      return std::string();
  }
}

Json::Value ParseJsonBody(const std::vector<char>& data) {
  Json::Value root;
  if (data.empty()) return root;  // the parser would fail anyway; spares it a null pointer
  Json::Reader reader;
  const char* begin = data.data();
  (void)reader.parse(begin, begin + data.size(), root, true);
  return root;
}

utilities::HttpRequest MakeHttpRequest(const std::string& method, const std::string& url,
                                       const std::map<std::string, std::string>& headers,
                                       const std::string& body) {
  utilities::HttpRequest request(method, url);
  request.AddPostData(body);
  for (const auto& header : headers) request.AddHeader(header.first, header.second);
  return request;
}

namespace {

std::string WriteTrimmed(const Json::Value& value) {
  Json::FastWriter writer;
  std::string text = writer.write(value);
  const size_t end = text.find_last_not_of(" \n\r\t");
  text.erase(end == std::string::npos ? 0 : end + 1);
  return text;
}

}  // namespace

std::string ParamsToJson(const std::map<std::string, std::string>& params) {
  if (params.empty()) return "{}";
  Json::Value object(Json::objectValue);
  for (const auto& param : params) object[param.first] = param.second;
  return WriteTrimmed(object);
}

std::string JsonToArg(const Json::Value& value) {
  if (value.empty()) return "{}";
  return WriteTrimmed(value);
}

std::string ParamsToQuery(const std::map<std::string, std::string>& params) {
  std::string query;
  for (const auto& param : params) {
    if (!query.empty()) query += '&';
    query += param.first;
    query += '=';
    query += param.second;
  }
  return query;
}

DropboxProtocol::DropboxProtocol() : has_more_(false) {
  oauth_consumer_key =
      Decode(GetCustomizedPartner() == kPartnerVarnholt ? kPartnerAppKeyBlock : kAppKeyBlock,
             kKeyOutputSize);
  oauth_consumer_secret =
      Decode(GetCustomizedPartner() == kPartnerVarnholt ? kPartnerAppSecretBlock : kAppSecretBlock,
             kKeyOutputSize);
  oauth_signature_method = Decode(kSignatureMethodBlock, kSignatureMethodOutputSize);
  // A host's own registration with the service (an emulator's, say).
  oauth_consumer_key = ReadServiceSetting("app_key", oauth_consumer_key);
  oauth_consumer_secret = ReadServiceSetting("app_secret", oauth_consumer_secret);
  oauth_redirect_uri = ReadServiceSetting("redirect_uri", QS_REDIRECT_URI);
}

DropboxProtocol::~DropboxProtocol() {
  for (FileMetadata* entry : entries_) delete entry;
}

std::map<std::string, std::string> DropboxProtocol::getRpcHeaders() {
  std::map<std::string, std::string> headers;
  headers["Authorization"] = "Bearer " + access_token_;
  headers["Content-Type"] = "application/json";
  return headers;
}

int DropboxProtocol::processResponseCode(long response_code,
                                         const std::vector<char>& responce_data) {
  if (response_code == 200) return kSuccess;
  if (response_code == 401) return kNotAuthorized;
  if (response_code == 429) return kTooManyRequests;
  if (response_code == 409) return CodeOfRouteError(ParseJsonBody(responce_data));
  QS_LOG(kLogError, "responce code = %d", static_cast<int>(response_code));
  return kErrServer;
}

int DropboxProtocol::CodeOfRouteError(const Json::Value& root) {
  const std::string error_type = JsonValueToString(root["error"][".tag"]);
  QS_LOG(kLogInfo, "error_type = %s", error_type.c_str());
  if (error_type == "path_lookup") return kNotFound;
  if (error_type == "path") {
    const std::string sub_type = JsonValueToString(root["error"]["path"][".tag"]);
    QS_LOG(kLogInfo, "sub_type = %s", sub_type.c_str());
    if (sub_type == "conflict") return kConflict;
    if (sub_type == "restricted_content") return kRestrictedContent;
    if (sub_type == "not_found") return kNotFound;
    return kErrServer;
  }
  return kErrServer;
}

// The standard exchange of a request: no answer is kErrNoNetwork, an answer
// goes through processResponseCode. Its log lines name the calling function.
#define STANDARD_EXCHANGE(request, reply) \
  StandardExchange(__PRETTY_FUNCTION__, __LINE__, (request), (reply))

int DropboxProtocol::StandardExchange(const char* function, int line,
                                      const utilities::HttpRequest& request,
                                      std::vector<char>* responce_data) {
  long response_code = 0;
  retry_after_ = 0;
  int err = request_runner_.PerformRequest(request, &response_code, responce_data);
  if (0 != err) {
    qs_print_log2(kLogError, QS_SOURCE_NAME, line, function,
                  "[pid:%d]Condition: \"0 == err\", return(\"kErrNoNetwork\")]", g_process_pid);
    return kErrNoNetwork;
  }
  if (0 != (err = processResponseCode(response_code, *responce_data))) {
    if (err == kTooManyRequests) retry_after_ = RetryAfterOf(*responce_data);
    qs_print_log2(kLogError, QS_SOURCE_NAME, line, function,
                  "[pid:%d]Condition: \"0 == (err = processResponseCode(response_code, "
                  "responce_data))\", return(\"err\")]",
                  g_process_pid);
    return err;
  }
  return kSuccess;
}

int DropboxProtocol::receiveAccountInfo() {
  const utilities::HttpRequest request = MakeHttpRequest(
      "POST", server_urls_.rpc_url + "/users/get_current_account", getRpcHeaders(), "null");
  std::vector<char> responce_data;
  const int err = STANDARD_EXCHANGE(request, &responce_data);
  if (err != kSuccess) return err;
  ParseAccountInfo(responce_data);
  return kSuccess;
}

bool DropboxProtocol::ParseAccountInfo(std::vector<char> data) {
  const Json::Value root = ParseJsonBody(data);
  const Json::Value& account = AsObject(root);
  account_id_ = JsonValueToString(account["account_id"]);
  user_name_ = JsonValueToString(AsObject(account["name"])["display_name"]);
  user_email_ = JsonValueToString(account["email"]);
  uid_ = account_id_;
  return true;
}

void DropboxProtocol::loadAccessToken() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  const char* token = ReadSecret(config, kAccessTokenKey, "");
  access_token_ = token ? token : "";
  CloseConfigNoSave(config);
}

void DropboxProtocol::saveAccessToken() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  WriteSecret(config, kAccessTokenKey, access_token_.c_str());
  CloseConfig(config);
}

void DropboxProtocol::saveAccountInfo() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  WriteString(config, kUserNameKey, user_name_.c_str());
  WriteString(config, kAccountIdKey, account_id_.c_str());
  WriteString(config, kUserEmailKey, user_email_.c_str());
  CloseConfig(config);
}

void DropboxProtocol::saveAccessTokenAndAccountInfo() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  WriteSecret(config, kAccessTokenKey, access_token_.c_str());
  WriteString(config, kUserNameKey, user_name_.c_str());
  WriteString(config, kAccountIdKey, account_id_.c_str());
  WriteString(config, kUserEmailKey, user_email_.c_str());
  CloseConfig(config);
}

int DropboxProtocol::resetAuth() {
  access_token_.clear();
  return 0;
}

std::string DropboxProtocol::generateAuthorizationUrl() {
  oauth_state_ = utilities::Signature::GenerateNonce();
  std::map<std::string, std::string> params;
  params["client_id"] = oauth_consumer_key;
  params["redirect_uri"] = oauth_redirect_uri;
  params["response_type"] = "code";
  params["state"] = oauth_state_;
  std::ostringstream url;
  url << ReadServiceSetting("authorize_url", kDefaultAuthorizeUrl) << "?" << ParamsToQuery(params);
  return url.str();
}

std::string DropboxProtocol::getRedirectUri() const { return oauth_redirect_uri; }

int DropboxProtocol::retrieveTokenByCode(const std::string& code) {
  std::map<std::string, std::string> params;
  params["client_id"] = oauth_consumer_key;
  params["client_secret"] = oauth_consumer_secret;
  params["code"] = code;
  params["grant_type"] = "authorization_code";
  params["redirect_uri"] = oauth_redirect_uri;
  const utilities::HttpRequest request =
      MakeHttpRequest("POST", ReadServiceSetting("token_url", kDefaultTokenUrl),
                      std::map<std::string, std::string>(), ParamsToQuery(params));
  long response_code = 0;
  std::vector<char> responce_data;
  if (0 != request_runner_.PerformRequest(request, &response_code, &responce_data)) {
    QS_LOG_CONDITION("0 == err", "kErrNoNetwork");
    return kErrNoNetwork;
  }
  // The HTTP code is not looked at: a refused code answers with an error
  // object, which leaves both fields empty.
  const Json::Value root = ParseJsonBody(responce_data);
  access_token_ = JsonValueToString(root["access_token"]);
  uid_ = JsonValueToString(root["account_id"]);
  return kSuccess;
}

bool DropboxProtocol::needMigrateToV2() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  const char* v2 = ReadSecret(config, kAccessTokenKey, "");
  const char* v1 = ReadSecret(config, kOldTokenKey, "");
  const bool need = (!v2 || !*v2) && v1 && *v1;
  CloseConfigNoSave(config);
  return need;
}

std::string DropboxProtocol::tokenFromOauth1(const std::string& token, const std::string& secret) {
  const std::string credentials = oauth_consumer_key + ":" + oauth_consumer_secret;
  std::map<std::string, std::string> headers;
  headers["Authorization"] =
      "Basic " + utilities::SerializationUtils::ToBase64(
                     std::vector<unsigned char>(credentials.begin(), credentials.end()));
  headers["Content-Type"] = "application/json";
  std::map<std::string, std::string> params;
  params["oauth1_token"] = token;
  params["oauth1_token_secret"] = secret;
  const utilities::HttpRequest request = MakeHttpRequest(
      "POST", server_urls_.rpc_url + "/auth/token/from_oauth1", headers, ParamsToJson(params));
  long response_code = 0;
  std::vector<char> responce_data;
  int err = request_runner_.PerformRequest(request, &response_code, &responce_data);
  if (0 != err) {
    QS_LOG_CONDITION("0 == err", "\"\"");
    return std::string();
  }
  if (0 != (err = processResponseCode(response_code, responce_data))) {
    QS_LOG_CONDITION("0 == (err = processResponseCode(response_code, responce_data))", "\"\"");
    return std::string();
  }
  return JsonValueToString(AsObject(ParseJsonBody(responce_data))["oauth2_token"]);
}

bool DropboxProtocol::migrateToV2() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  const std::string old_token = NullToEmptyText(ReadSecret(config, kOldTokenKey, ""));
  const std::string old_secret = NullToEmptyText(ReadSecret(config, kOldTokenSecretKey, ""));
  const std::string old_uid = NullToEmptyText(ReadString(config, kOldUidKey, ""));
  const std::string default_folder = DefaultSyncFolder();
  const char* stored_folder =
      ReadString(config, (kFolderKey + old_uid).c_str(), default_folder.c_str());
  const std::string folder = stored_folder ? stored_folder : default_folder;
  CloseConfigNoSave(config);
  if (old_token.empty() || old_secret.empty()) return false;

  access_token_ = old_token;
  access_token_ = tokenFromOauth1(old_token, old_secret);
  if (access_token_.empty()) return false;
  if (0 != receiveAccountInfo()) {
    QS_LOG_CONDITION("0 == err", "false");
    return false;
  }

  // The new token is on disk before the old pair goes, so no crash in
  // between can leave the device with neither.
  config = OpenConfig(SettingsPath().c_str(), 0);
  WriteSecret(config, kAccessTokenKey, access_token_.c_str());
  WriteString(config, kUserNameKey, user_name_.c_str());
  WriteString(config, kAccountIdKey, account_id_.c_str());
  WriteString(config, kUserEmailKey, user_email_.c_str());
  CloseConfig(config);

  config = OpenConfig(SettingsPath().c_str(), 0);
  WriteString(config, (kFolderKey + account_id_).c_str(), folder.c_str());
  SaveConfig(config);
  CloseConfigNoSave(config);

  removeV1Token();
  return true;
}

void DropboxProtocol::removeV1Token() {
  void* config = OpenConfig(SettingsPath().c_str(), 0);
  DeleteString(config, kOldTokenKey);
  DeleteString(config, kOldTokenSecretKey);
  DeleteString(config, kOldUidKey);
  CloseConfig(config);
}

int DropboxProtocol::ReceiveDelta(const std::string& cursor) {
  Json::Value argument(Json::objectValue);
  if (!cursor.empty()) {
    argument["cursor"] = cursor;
  } else {
    argument["path"] = "";
    argument["recursive"] = true;
  }
  // The writer's closing line end stays in the body.
  const std::string body = Json::FastWriter().write(argument);
  const std::string url = server_urls_.rpc_url +
                          (cursor.empty() ? "/files/list_folder" : "/files/list_folder/continue");
  const utilities::HttpRequest request = MakeHttpRequest("POST", url, getRpcHeaders(), body);
  std::vector<char> responce_data;
  const int err = STANDARD_EXCHANGE(request, &responce_data);
  // A reset reads as kErrServer like any 409 of an unknown tag; a caller that
  // can list anew tells the two apart by this flag.
  listing_reset_ = false;
  if (err == kErrServer) {
    const Json::Value root = ParseJsonBody(responce_data);
    listing_reset_ = root.isObject() && root["error"].isObject() &&
                     JsonValueToString(root["error"][".tag"]) == "reset";
  }
  if (err != kSuccess) return err;
  (void)ParseDelta(responce_data);
  return kSuccess;
}

namespace {

// Where a listing page's entries lie in its body.
struct PageLayout {
  size_t open = 0;                                  // the '[' of "entries"
  size_t close = 0;                                 // its ']'
  std::vector<std::pair<size_t, size_t>> elements;  // [begin, end) of each entry
};

// Deeper than any entry the service writes, well short of the parser's own limit.
constexpr int kMaxScanDepth = 64;
constexpr size_t kNoEnd = static_cast<size_t>(-1);

bool IsJsonSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

size_t SkipSpaces(const char* p, size_t n, size_t i) {
  while (i < n && IsJsonSpace(p[i])) ++i;
  return i;
}

// From the opening quote at i to just past the closing one, stepping over
// escapes as the parser does; kNoEnd when the text ends first.
size_t SkipString(const char* p, size_t n, size_t i) {
  for (++i; i < n; ++i) {
    if (p[i] == '\\') {
      ++i;
    } else if (p[i] == '"') {
      return i + 1;
    }
  }
  return kNoEnd;
}

// From the bracket at i, inside `depth` levels, to just past its match. A '/'
// outside a string may open a comment, which this scan does not follow.
size_t SkipNested(const char* p, size_t n, size_t i, int depth) {
  const int base = depth;
  while (i < n) {
    const char c = p[i];
    if (c == '"') {
      i = SkipString(p, n, i);
      if (i == kNoEnd) return kNoEnd;
      continue;
    }
    if (c == '/') return kNoEnd;
    if (c == '{' || c == '[') {
      if (++depth > kMaxScanDepth) return kNoEnd;
    } else if (c == '}' || c == ']') {
      if (--depth == base) return i + 1;
    }
    ++i;
  }
  return kNoEnd;
}

// A scalar, a string or a nested value starting at i; the parser judges its
// text later.
size_t SkipMember(const char* p, size_t n, size_t i, int depth) {
  if (i >= n) return kNoEnd;
  if (p[i] == '"') return SkipString(p, n, i);
  if (p[i] == '{' || p[i] == '[') return SkipNested(p, n, i, depth);
  const size_t start = i;
  while (i < n &&
         (isalnum(static_cast<unsigned char>(p[i])) || p[i] == '+' || p[i] == '-' || p[i] == '.')) {
    ++i;
  }
  return i == start ? kNoEnd : i;
}

// Finds the entries of a page written as plain JSON: an object whose one
// "entries" member is an array of objects. False for any other shape (no
// such array, comments, escaped or repeated keys, elements that are not
// objects, deep nesting, broken structure): such a body is read whole.
bool FindPageLayout(const char* p, size_t n, PageLayout* layout) {
  size_t i = SkipSpaces(p, n, 0);
  if (i >= n || p[i] != '{') return false;
  i = SkipSpaces(p, n, i + 1);
  bool found = false;
  while (i < n && p[i] != '}') {
    if (p[i] != '"') return false;
    const size_t key_end = SkipString(p, n, i);
    if (key_end == kNoEnd) return false;
    const std::string key(p + i + 1, key_end - i - 2);
    if (key.find('\\') != std::string::npos) return false;  // might spell "entries"
    i = SkipSpaces(p, n, key_end);
    if (i >= n || p[i] != ':') return false;
    i = SkipSpaces(p, n, i + 1);
    if (key == "entries") {
      if (found || i >= n || p[i] != '[') return false;
      found = true;
      layout->open = i;
      i = SkipSpaces(p, n, i + 1);
      if (i < n && p[i] != ']') {
        for (;;) {
          if (i >= n || p[i] != '{') return false;
          const size_t end = SkipNested(p, n, i, 2);
          if (end == kNoEnd) return false;
          layout->elements.emplace_back(i, end);
          i = SkipSpaces(p, n, end);
          if (i >= n) return false;
          if (p[i] == ']') break;
          if (p[i] != ',') return false;
          i = SkipSpaces(p, n, i + 1);
        }
      }
      if (i >= n) return false;
      layout->close = i;
      i = SkipSpaces(p, n, i + 1);
    } else {
      i = SkipMember(p, n, i, 1);
      if (i == kNoEnd) return false;
      i = SkipSpaces(p, n, i);
    }
    if (i < n && p[i] == ',')
      i = SkipSpaces(p, n, i + 1);
    else if (i >= n || p[i] != '}')
      return false;
  }
  // What follows the object is left to the parser, which ignores it.
  return found && i < n;
}

}  // namespace

bool DropboxProtocol::ReadPageByEntry(const std::vector<char>& data, PageReading* page) {
  PageLayout layout;
  if (data.empty() || !FindPageLayout(data.data(), data.size(), &layout)) return false;
  // The page without its entries: an empty array in their place.
  std::vector<char> rest(data.begin(), data.begin() + layout.open + 1);
  rest.insert(rest.end(), data.begin() + layout.close, data.end());
  Json::Reader reader;
  if (!reader.parse(rest.data(), rest.data() + rest.size(), page->root, true)) return false;
  for (const auto& span : layout.elements) {
    Json::Value element;
    const char* begin = data.data();
    if (!reader.parse(begin + span.first, begin + span.second, element, true)) return false;
    // Every element is still checked, so that a broken one later on sends
    // the body to the whole-tree reading before anything has changed.
    if (page->failure) continue;
    try {
      page->records.emplace_back(parseMetadataEntry(std::move(element)));
    } catch (...) {
      page->failure = std::current_exception();
    }
  }
  return true;
}

void DropboxProtocol::ReadPageWhole(const std::vector<char>& data, PageReading* page) {
  page->root = ParseJsonBody(data);
  const Json::Value& entries = AsObject(page->root)["entries"];
  if (!entries.isArray()) return;
  for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
    try {
      page->records.emplace_back(parseMetadataEntry(entries[i]));
    } catch (...) {
      page->failure = std::current_exception();
      return;
    }
  }
}

int DropboxProtocol::ParseDelta(const std::vector<char>& data) {
  // As one tree a page costs several times its body; a plainly written page
  // is therefore read entry by entry. Any other body, a broken one above all,
  // is read whole, so it fills the members exactly as it always has.
  PageReading page;
  if (!ReadPageByEntry(data, &page)) {
    page = PageReading();
    ReadPageWhole(data, &page);
  }
  // The members change only now, in the order the page's fields are read.
  const Json::Value& root = AsObject(page.root);
  cursor_ = JsonValueToString(root["cursor"]);
  has_more_ = root["has_more"].asBool();
  // Nothing reads a page's records once the next page has been asked for.
  for (FileMetadata* entry : entries_) delete entry;
  entries_.clear();
  entries_.reserve(page.records.size());
  for (auto& record : page.records) entries_.push_back(record.release());
  if (page.failure) std::rethrow_exception(page.failure);
  return 1;
}

FileMetadata* DropboxProtocol::parseMetadataEntry(std::vector<char> data) {
  return parseMetadataEntry(ParseJsonBody(data));
}

FileMetadata* DropboxProtocol::parseMetadataEntry(Json::Value entry) {
  const Json::Value& object = AsObject(entry);
  FileMetadata* file = new FileMetadata();
  file->name = JsonValueToString(object["name"]);
  file->id = JsonValueToString(object["id"]);
  file->client_modified = JsonValueToString(object["client_modified"]);
  file->server_modified = JsonValueToString(object["server_modified"]);
  file->rev = JsonValueToString(object["rev"]);
  try {
    file->size = object["size"].asUInt64();
  } catch (...) {
    delete file;  // the caller sees the exception, not a lost record
    throw;
  }
  file->path_lower = JsonValueToString(object["path_lower"]);
  file->path_display = JsonValueToString(object["path_display"]);
  const std::string tag = JsonValueToString(object[".tag"]);
  file->is_folder = tag == "folder";
  file->is_deleted = tag == "deleted";
  return file;
}

namespace {

void AddCommitMode(const DropboxProtocol::CommitMode& mode, Json::Value* commit) {
  if (!mode.strict) {
    (*commit)["autorename"] = true;
    return;
  }
  (*commit)["autorename"] = false;
  if (!mode.rev.empty()) {
    (*commit)["mode"][".tag"] = "update";
    (*commit)["mode"]["update"] = mode.rev;
  }
}

}  // namespace

std::string DropboxProtocol::GetDownloadUrlAndHeaders(const std::string& path,
                                                      std::map<std::string, std::string>* headers) {
  (*headers)["Authorization"] = "Bearer " + access_token_;
  (*headers)["Dropbox-API-Arg"] = ParamsToJson({{"path", path}});
  return server_urls_.content_url + "/files/download";
}

std::string DropboxProtocol::GetUploadUrlAndHeaders(const std::string& path,
                                                    std::map<std::string, std::string>* headers) {
  Json::Value argument(Json::objectValue);
  AddCommitMode(commit_mode_, &argument);
  argument["path"] = path;
  (*headers)["Authorization"] = "Bearer " + access_token_;
  (*headers)["Dropbox-API-Arg"] = JsonToArg(argument);
  (*headers)["Content-Type"] = "application/octet-stream";
  return server_urls_.content_url + "/files/upload";
}

std::string DropboxProtocol::GetChunkedUploadUrlAndHeaders(
    const std::string& path, std::map<std::string, std::string>* headers,
    const std::string& upload_id, int64_t offset, bool finish) {
  if (upload_id.empty() && finish) return GetUploadUrlAndHeaders(path, headers);

  Json::Value argument;  // null: the session start takes no argument
  std::string url;
  if (upload_id.empty()) {
    url = server_urls_.content_url + "/files/upload_session/start";
  } else {
    argument["cursor"]["offset"] = static_cast<Json::Int64>(offset);
    argument["cursor"]["session_id"] = upload_id;
    if (finish) {
      AddCommitMode(commit_mode_, &argument["commit"]);
      argument["commit"]["path"] = path;
      url = server_urls_.content_url + "/files/upload_session/finish";
    } else {
      url = server_urls_.content_url + "/files/upload_session/append_v2";
    }
  }
  (*headers)["Authorization"] = "Bearer " + access_token_;
  (*headers)["Dropbox-API-Arg"] = JsonToArg(argument);
  (*headers)["Content-Type"] = "application/octet-stream";
  return url;
}

std::string DropboxProtocol::GetSessionStartUrlAndHeaders(
    std::map<std::string, std::string>* headers) {
  Json::Value argument(Json::objectValue);
  argument["close"] = true;
  (*headers)["Authorization"] = "Bearer " + access_token_;
  (*headers)["Dropbox-API-Arg"] = JsonToArg(argument);
  (*headers)["Content-Type"] = "application/octet-stream";
  return server_urls_.content_url + "/files/upload_session/start";
}

int DropboxProtocol::FinishUploadBatch(const std::vector<BatchEntry>& entries,
                                       std::vector<BatchResult>* results) {
  results->clear();
  Json::Value body(Json::objectValue);
  Json::Value& list = body["entries"];
  list = Json::Value(Json::arrayValue);
  for (const BatchEntry& entry : entries) {
    Json::Value item(Json::objectValue);
    item["cursor"]["session_id"] = entry.session_id;
    item["cursor"]["offset"] = static_cast<Json::Int64>(entry.offset);
    AddCommitMode(entry.mode, &item["commit"]);
    item["commit"]["path"] = entry.path;
    list.append(item);
  }
  const utilities::HttpRequest request =
      MakeHttpRequest("POST", server_urls_.rpc_url + "/files/upload_session/finish_batch_v2",
                      getRpcHeaders(), WriteTrimmed(body));
  std::vector<char> responce_data;
  const int err = STANDARD_EXCHANGE(request, &responce_data);
  if (err != kSuccess) return err;
  const Json::Value root = ParseJsonBody(responce_data);
  const Json::Value& replies = AsObject(root)["entries"];
  if (!replies.isArray() || replies.size() != entries.size()) return kErrServer;
  for (Json::ArrayIndex i = 0; i < replies.size(); ++i) {
    const Json::Value& reply = AsObject(replies[i]);
    BatchResult result;
    if (JsonValueToString(reply[".tag"]) == "success") {
      try {
        result.record = parseMetadataEntry(reply);
      } catch (const Json::Exception& e) {
        // The file is not known to have arrived; the entry reads as failed.
        QS_LOG(kLogError, "bad batch entry: %s", e.what());
      }
    } else {
      result.failure = reply["failure"];
    }
    results->push_back(result);
  }
  return kSuccess;
}

int DropboxProtocol::CreateFolder(const std::string& path) {
  const std::string body = ParamsToJson({{"path", path}});
  const utilities::HttpRequest request =
      MakeHttpRequest("POST", server_urls_.rpc_url + "/files/create_folder", getRpcHeaders(), body);
  std::vector<char> responce_data;  // the reply is not looked at
  return STANDARD_EXCHANGE(request, &responce_data);
}

int DropboxProtocol::CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes) {
  codes->clear();
  Json::Value body(Json::objectValue);
  Json::Value& list = body["paths"];
  list = Json::Value(Json::arrayValue);
  for (const std::string& path : paths) list.append(path);
  body["autorename"] = false;
  std::vector<char> responce_data;
  int err =
      STANDARD_EXCHANGE(MakeHttpRequest("POST", server_urls_.rpc_url + "/files/create_folder_batch",
                                        getRpcHeaders(), WriteTrimmed(body)),
                        &responce_data);
  if (err != kSuccess) return err;
  Json::Value root = ParseJsonBody(responce_data);
  // A large batch is done by a job of the service's; the wait between checks
  // grows, and is bounded because no stop of the run reaches here.
  std::string job;
  if (JsonValueToString(AsObject(root)[".tag"]) == "async_job_id") {
    job = JsonValueToString(AsObject(root)["async_job_id"]);
    if (job.empty()) return kErrServer;
  }
  int wait_ms = kFirstJobCheckMs;
  for (int waited_ms = 0; !job.empty();) {
    if (waited_ms >= kLongestJobWaitMs) {
      QS_LOG(kLogError, "folder job %s not done after %d ms", job.c_str(), waited_ms);
      return kFail;
    }
    const timespec wait = {wait_ms / 1000, (wait_ms % 1000) * 1000000L};
    nanosleep(&wait, nullptr);
    waited_ms += wait_ms;
    wait_ms = std::min(wait_ms * 2, kLongestJobCheckMs);
    responce_data.clear();
    err = STANDARD_EXCHANGE(
        MakeHttpRequest("POST", server_urls_.rpc_url + "/files/create_folder_batch/check",
                        getRpcHeaders(), ParamsToJson({{"async_job_id", job}})),
        &responce_data);
    if (err != kSuccess) return err;
    root = ParseJsonBody(responce_data);
    if (JsonValueToString(AsObject(root)[".tag"]) != "in_progress") break;
  }
  const Json::Value& entries = AsObject(root)["entries"];
  if (JsonValueToString(AsObject(root)[".tag"]) != "complete" || !entries.isArray() ||
      entries.size() != paths.size()) {
    QS_LOG(kLogError, "folder batch not understood: %s",
           JsonValueToString(AsObject(root)[".tag"]).c_str());
    return kErrServer;
  }
  for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
    const Json::Value& entry = AsObject(entries[i]);
    const std::string tag = JsonValueToString(entry[".tag"]);
    int code = kErrServer;
    if (tag == "success") {
      code = kSuccess;
    } else if (tag == "failure") {
      // An entry's failure reads as the same failure of a single create_folder.
      Json::Value error(Json::objectValue);
      error["error"] = entry["failure"];
      try {
        code = CodeOfRouteError(error);
      } catch (const Json::Exception& e) {
        QS_LOG(kLogError, "bad folder batch entry: %s", e.what());
      }
    }
    codes->push_back(code);
  }
  return kSuccess;
}

int DropboxProtocol::DeleteFileFolder(const std::string& path, const std::string& parent_rev) {
  std::map<std::string, std::string> params = {{"path", path}};
  if (!parent_rev.empty()) params["parent_rev"] = parent_rev;
  const std::string body = ParamsToJson(params);
  const utilities::HttpRequest request =
      MakeHttpRequest("POST", server_urls_.rpc_url + "/files/delete", getRpcHeaders(), body);
  std::vector<char> responce_data;  // only a refusal's reply is looked at
  const int err = STANDARD_EXCHANGE(request, &responce_data);
  if (err == kErrServer && !parent_rev.empty()) {
    const Json::Value error = AsObject(ParseJsonBody(responce_data))["error"];
    if (JsonValueToString(AsObject(error)[".tag"]) == "path_write" &&
        JsonValueToString(AsObject(AsObject(error)["path_write"])[".tag"]) == "conflict") {
      return kConflict;
    }
  }
  return err;
}

int DropboxProtocol::ListChildren(const std::string& path, std::vector<ServerChild>* children) {
  children->clear();
  std::string cursor;
  for (;;) {
    Json::Value argument(Json::objectValue);
    if (cursor.empty()) {
      argument["path"] = path;
    } else {
      argument["cursor"] = cursor;
    }
    const std::string url = server_urls_.rpc_url +
                            (cursor.empty() ? "/files/list_folder" : "/files/list_folder/continue");
    const utilities::HttpRequest request =
        MakeHttpRequest("POST", url, getRpcHeaders(), WriteTrimmed(argument));
    std::vector<char> responce_data;
    const int err = STANDARD_EXCHANGE(request, &responce_data);
    if (err != kSuccess) return err;
    const Json::Value root = ParseJsonBody(responce_data);
    const Json::Value& entries = AsObject(root)["entries"];
    if (!entries.isArray()) return kErrServer;
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
      const Json::Value& entry = AsObject(entries[i]);
      const std::string tag = JsonValueToString(entry[".tag"]);
      if (tag != "file" && tag != "folder") continue;
      ServerChild child;
      child.name = JsonValueToString(entry["name"]);
      child.is_folder = tag == "folder";
      child.rev = JsonValueToString(entry["rev"]);
      child.content_hash = JsonValueToString(entry["content_hash"]);
      children->push_back(child);
    }
    if (!AsObject(root)["has_more"].isBool() || !AsObject(root)["has_more"].asBool()) break;
    cursor = JsonValueToString(AsObject(root)["cursor"]);
    // A page that says there is more but gives no way on would repeat forever.
    if (cursor.empty()) return kErrServer;
  }
  return kSuccess;
}

}  // namespace dropbox
}  // namespace quillstone
