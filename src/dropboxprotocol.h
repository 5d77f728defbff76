// The Dropbox HTTP API, version 2, as this client speaks it.
//
// DropboxProtocol holds the access token and account data, the last folder
// listing page, the service's base addresses and one request runner. Every
// call blocks on the caller's thread, and there is no lock: one thread at a
// time (in the sync worker, the sync thread alone). The data members are
// public because the sync engine and the authorisation flow read them
// directly.
//
// Service settings. The addresses and the app's registration come from the
// optional settings file kServiceSettingsFile, read
// at construction. Its keys:
//   api_url       API base with the "/2" path; default
//                 "https://api.dropboxapi.com/2". rpc_url is the same text.
//   content_url   content base with the "/2" path; default
//                 "https://content.dropboxapi.com/2".
//   app_key       replaces the built-in app key in oauth_consumer_key.
//   app_secret    replaces the built-in app secret in oauth_consumer_secret.
//   authorize_url the authorisation page; default
//                 "https://www.dropbox.com/oauth2/authorize".
//   token_url     the token endpoint; default
//                 "https://api.dropboxapi.com/oauth2/token".
//   redirect_uri  replaces the built-in redirect page address in
//                 oauth_redirect_uri.
// The device itself has no such file, so it talks to the real service; a
// host points a device root at a local emulator with it.
#pragma once

#include <json/json.h>

#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "file_metadata.h"
#include "http_request.h"

namespace quillstone {

// The service's base addresses, fixed at construction.
struct ServerUrls {
  ServerUrls();

  std::string api_url;      // kept beside the others; no request reads it
  std::string rpc_url;      // base of every RPC request
  std::string content_url;  // base of downloads and uploads
};

namespace dropbox {

// The app's registration, deciphered (or taken from the service settings)
// by every construction of a DropboxProtocol; empty before the first one.
extern std::string oauth_consumer_key;
extern std::string oauth_consumer_secret;
extern std::string oauth_signature_method;
// The page whose address ends a browser authorisation. The program never
// loads it; it only watches the browser's address for it.
extern std::string oauth_redirect_uri;

// The value of `key` in the service settings file, or `deflt` when the file
// or the key is absent.
std::string ReadServiceSetting(const std::string& key, const std::string& deflt);

// One item of a server folder, as a folder's own listing gives it.
struct ServerChild {
  std::string name;
  bool is_folder = false;
  std::string rev;           // files only
  std::string content_hash;  // files only; see content_hash.h
};

class DropboxProtocol {
 public:
  // Result codes of every protocol call and sync step. The values are fixed:
  // they are converted to the sync error scale as numbers.
  enum ErrorCode {
    kSuccess = 0,
    kNotAuthorized = 1,       // HTTP 401
    kFail = 2,                // a local failure
    kErrStorage = 4,          // the downloader could not store the file
    kWrongUser = 5,           // the account differs from the store's
    kNotFound = 6,            // HTTP 409, path not found
    kTooManyRequests = 7,     // HTTP 429
    kConflict = 8,            // HTTP 409, path conflict
    kNeedSDCard = 9,          // the sync folder is on a card that is missing
    kErrServer = 10,          // any answer that is not understood
    kErrNoNetwork = 11,       // no HTTP answer at all
    kStopped = 12,            // the user stopped the run
    kRestrictedContent = 13,  // HTTP 409, content the service will not hold
  };

  DropboxProtocol();
  // Frees the records of the last listing page.
  ~DropboxProtocol();
  DropboxProtocol(const DropboxProtocol&) = delete;
  DropboxProtocol& operator=(const DropboxProtocol&) = delete;

  // "Authorization" with the bearer token, and the JSON content type.
  std::map<std::string, std::string> getRpcHeaders();
  // Maps an HTTP answer to a result code; changes no member. A 409 body
  // that is JSON but not an object of objects where the tags are looked up
  // (`[1]`, `{"error":"path"}`) throws Json::LogicError, uncaught here.
  int processResponseCode(long response_code, const std::vector<char>& responce_data);

  // Asks the service for the account and fills account_id_, user_name_,
  // user_email_ and uid_. On failure the fields stay as they were.
  int receiveAccountInfo();
  // Fills the account fields from a reply; a reply that is not a JSON object
  // empties them. Always true.
  bool ParseAccountInfo(std::vector<char> data);

  // Token and account keys of the settings file; each call opens and closes
  // the file. Failures are ignored: an unreadable file gives an empty token.
  void loadAccessToken();
  void saveAccessToken();
  void saveAccountInfo();
  void saveAccessTokenAndAccountInfo();
  // Forgets the token in memory only; 0.
  int resetAuth();

  // The address of the authorisation page, with a fresh oauth_state_.
  std::string generateAuthorizationUrl();
  std::string getRedirectUri() const;
  // Trades the code of a redirect for a token. kErrNoNetwork (nothing
  // changed) when no answer came; otherwise kSuccess with access_token_ and
  // uid_ taken from the reply whatever its HTTP code, so a refused code
  // leaves both empty. A reply that is JSON but not an object throws
  // Json::LogicError.
  int retrieveTokenByCode(const std::string& code);

  // Migration of the OAuth 1 pair that older versions stored. True when
  // kAccessTokenKey is empty and the old kOldTokenKey is not.
  bool needMigrateToV2();
  // The OAuth 2 token the service gives for an old pair; "" on any failure.
  std::string tokenFromOauth1(const std::string& token, const std::string& secret);
  // Converts the stored pair, saves the new token and the account, carries
  // the account's folder setting over to the new folder key and deletes the
  // old keys. On false the settings file is as it was, so the next start
  // tries again.
  bool migrateToV2();
  // Deletes the three keys of the old pair.
  void removeV1Token();

  // One page of the recursive listing of the whole account: the first page
  // for an empty cursor, else the page after `cursor`. On 0 entries_,
  // cursor_ and has_more_ describe the page; otherwise they are unchanged,
  // and listing_reset_ says whether the service refused the cursor as reset.
  int ReceiveDelta(const std::string& cursor);
  // Replaces entries_, cursor_ and has_more_ from a reply. The previous
  // page's records are freed here. A reply that is not a JSON object gives
  // an empty page. A "has_more" or entry "size" of the wrong type throws
  // Json::LogicError. A page of the usual shape is read one entry at a
  // time, never as one tree: the body and the records are the bulk of what
  // a page costs. Always 1.
  int ParseDelta(const std::vector<char>& data);
  // A new record from one entry; the caller owns it. A value that is not an
  // object gives an empty record (a file with no name).
  FileMetadata* parseMetadataEntry(std::vector<char> data);
  FileMetadata* parseMetadataEntry(Json::Value entry);

  // Address of a content request; the keys it needs are assigned in
  // *headers, other entries stay.
  std::string GetDownloadUrlAndHeaders(const std::string& path,
                                       std::map<std::string, std::string>* headers);
  std::string GetUploadUrlAndHeaders(const std::string& path,
                                     std::map<std::string, std::string>* headers);
  // Start, append to or finish an upload session; with no `upload_id` and
  // `finish` set, the one-shot upload.
  std::string GetChunkedUploadUrlAndHeaders(const std::string& path,
                                            std::map<std::string, std::string>* headers,
                                            const std::string& upload_id, int64_t offset,
                                            bool finish);
  // A session start whose body is a whole file and which closes the
  // session, so that a batch commit can take it; the caller adds the
  // content hash to the argument.
  std::string GetSessionStartUrlAndHeaders(std::map<std::string, std::string>* headers);
  int CreateFolder(const std::string& path);
  // Creates `paths` in one request, each on its own, waiting for the
  // service's job when it answers with one (kFail when the job is not done
  // after kLongestJobWaitMs). On kSuccess *codes holds one code per path, in
  // order, as CreateFolder would give for that path alone. Another code is
  // the failure of the whole request, with *codes empty.
  int CreateFolders(const std::vector<std::string>& paths, std::vector<int>* codes);
  static constexpr int kFirstJobCheckMs = 100;     // doubles after each check...
  static constexpr int kLongestJobCheckMs = 2000;  // ...up to this
  static constexpr int kLongestJobWaitMs = 15000;
  // A file or a folder; with a `parent_rev` the service deletes a file only
  // while that is its revision, and answers kConflict otherwise.
  int DeleteFileFolder(const std::string& path, const std::string& parent_rev = std::string());
  // After a request of the standard exchange gave kTooManyRequests: the
  // seconds the service asked to wait; 0 when it did not say, and after any
  // other answer.
  int retry_after_ = 0;
  // The items directly in the server folder `path` ("" for the root), all
  // pages of them. kNotFound when the folder is not there.
  int ListChildren(const std::string& path, std::vector<ServerChild>* children);

  // How the next uploads and session finishes commit. The default lets the
  // service rename on a conflict; strict asks it to refuse instead, and to
  // replace the file only while its revision is `rev` (no `rev`: only
  // where there is no file).
  struct CommitMode {
    bool strict = false;
    std::string rev;
  };
  CommitMode commit_mode_;

  // One file of a batch commit: its closed session and how it commits.
  struct BatchEntry {
    std::string session_id;
    int64_t offset = 0;  // the bytes the session holds
    std::string path;
    CommitMode mode;
  };
  // What a batch commit did with one entry: the file's record (owned by the
  // caller), or, with no record, the entry's failure (an
  // UploadSessionFinishError; null when the entry could not be read).
  struct BatchResult {
    FileMetadata* record = nullptr;
    Json::Value failure;
  };
  // Commits closed sessions in one request, each entry on its own. On
  // kSuccess *results holds one result per entry, in order; a reply of
  // another length is kErrServer.
  int FinishUploadBatch(const std::vector<BatchEntry>& entries, std::vector<BatchResult>* results);

  std::string access_token_;  // bearer token; empty when logged out
  std::string uid_;           // account id from the token reply or the account request
  std::string user_name_;
  std::string account_id_;
  std::string user_email_;
  std::vector<FileMetadata*> entries_;  // records of the last page; owned until the next page
  std::string cursor_;                  // that page's cursor
  bool has_more_;                       // that page's "has_more"
  bool listing_reset_ = false;          // the last ReceiveDelta met a 409 "reset"
  ServerUrls server_urls_;
  std::string oauth_state_;  // "state" of the last authorisation address
  utilities::HttpRequestRunner request_runner_;

 private:
  // A listing page read before any member changes: the page without its
  // entries, the records in order, and the exception of the record that
  // failed, after which there are no more.
  struct PageReading {
    Json::Value root;
    std::vector<std::unique_ptr<FileMetadata>> records;
    std::exception_ptr failure;
  };
  // Reads a plainly written page one entry at a time, so that no tree of the
  // whole page is built. False, with *page to be discarded, for a body of any
  // other shape.
  bool ReadPageByEntry(const std::vector<char>& data, PageReading* page);
  // Reads the page as one tree, as ParseJsonBody gives it.
  void ReadPageWhole(const std::vector<char>& data, PageReading* page);

  // The code of a 409 body `root`, whose "error" is a route's error union.
  // Throws Json::LogicError where processResponseCode says it does.
  static int CodeOfRouteError(const Json::Value& root);

  // Runs `request` and maps the answer; logs in the name of `function`.
  int StandardExchange(const char* function, int line, const utilities::HttpRequest& request,
                       std::vector<char>* responce_data);
};

// Text of a JSON scalar: null, string and boolean as asString() gives them,
// a signed integer in decimal; any other type gives "".
std::string JsonValueToString(const Json::Value& value);
// Parses a reply body. The parser's verdict is not looked at: on bad input
// the result is what was built so far, normally null.
Json::Value ParseJsonBody(const std::vector<char>& data);
utilities::HttpRequest MakeHttpRequest(const std::string& method, const std::string& url,
                                       const std::map<std::string, std::string>& headers,
                                       const std::string& body);
// One line of JSON for a request argument, with no trailing line end; "{}"
// for an empty map or an empty value.
std::string ParamsToJson(const std::map<std::string, std::string>& params);
std::string JsonToArg(const Json::Value& value);
// Pairs as "k1=v1&k2=v2" in key order, for a query or a form body. Nothing is
// escaped: values go in as they stand.
std::string ParamsToQuery(const std::map<std::string, std::string>& params);

}  // namespace dropbox
}  // namespace quillstone
