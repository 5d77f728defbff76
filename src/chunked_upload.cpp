#define QS_SOURCE_NAME "src/chunked_upload"

#include "chunked_upload.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <sstream>

#include "content_hash.h"
#include "json_parser_utils.h"
#include "qs_log.h"
#include "retry_wait.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Uploader;

namespace {

const off_t kChunkSize = 0x400000;
const int kRejectedChunksAllowed = 3;  // the next HTTP 400 in one upload ends it
const char kUploadIdSuffix[] = ":upload_id";
const char kUploadedOffsetSuffix[] = ":uploaded_offset";
const char kSessionSuffix[] = ":upload_session";
// Lost sessions one call starts over from; the next one ends the call, as the
// fourth rejected chunk does in the classic loop.
const int kRestartsAllowed = 3;

struct Session {
  FileStamp stamp;
  int64_t offset = 0;  // bytes the service has accepted
  std::string id;      // empty until the start request is answered
};

// "size mtime offset id": one value, so one store call records a chunk.
std::string Encode(const Session& s) {
  return std::to_string(s.stamp.size) + " " + std::to_string(s.stamp.mtime_ns) + " " +
         std::to_string(s.offset) + " " + s.id;
}

bool Decode(const std::string& text, Session* s) {
  std::istringstream in(text);
  in >> s->stamp.size >> s->stamp.mtime_ns >> s->offset;
  if (!in || in.get() != ' ') return false;
  std::getline(in, s->id);
  return s->offset > 0 && s->offset <= s->stamp.size && !s->id.empty();
}

// The error tag path of a 409 reply, "" when there is none.
std::string ErrorSummary(const std::vector<char>& reply) {
  Json::Value value;
  const std::string text(reply.begin(), std::find(reply.begin(), reply.end(), '\0'));
  if (!Json::Reader().parse(text, value) || !value.isObject()) return "";
  const Json::Value& summary = value["error_summary"];
  return summary.isString() ? summary.asString() : "";
}

// Whether a refused chunk means the session, not the file, is at fault.
bool LostSession(long http_status, const std::string& summary) {
  if (http_status == 400 || http_status == 404) return true;
  if (http_status != 409) return false;
  for (const char* tag : {"lookup_failed/", "not_found", "incorrect_offset", "closed"}) {
    if (summary.compare(0, std::strlen(tag), tag) == 0) return true;
  }
  return false;
}

}  // namespace

bool StampOf(const std::string& full_path, FileStamp* stamp) {
  // Never blocking, and no size for a stream, as MeasureFile.
  const int fd = open(full_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return false;
  struct stat st;
  const bool ok = !utilities::IsStream(fd) && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  close(fd);
  if (!ok) return false;
  stamp->size = st.st_size;
  stamp->mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return true;
}

bool AddContentHash(const std::string& full_path, int64_t offset, int64_t size, Headers* headers) {
  std::string hash;
  if (!ContentHashOfRange(full_path, offset, size, &hash)) return false;
  Json::Value argument;
  Json::Reader reader;
  if (!reader.parse((*headers)["Dropbox-API-Arg"], argument) || !argument.isObject()) return false;
  argument["content_hash"] = hash;
  (*headers)["Dropbox-API-Arg"] = JsonToArg(argument);
  return true;
}

off_t MeasureFile(const std::string& full_path) {
  // Never blocking: a FIFO would hang the run here. It, a socket or a device
  // has no size to send.
  const int fd = open(full_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return -1;
  const off_t size = utilities::IsStream(fd) ? -1 : lseek(fd, 0, SEEK_END);
  close(fd);
  return size;
}

ChunkedUpload::ChunkedUpload(const RunContext& run, SyncService& service, Uploader& uploader)
    : run_(run), service_(service), uploader_(uploader) {}

int ChunkedUpload::Upload(const std::string& path, FileMetadata** result) {
  if (run_.safe()) return UploadChecked(path, result);
  FileMetadataManager& store = run_.store;
  const std::string full_path = run_.folder + path;
  const std::string id_key = path + kUploadIdSuffix;
  const std::string offset_key = path + kUploadedOffsetSuffix;
  // An absent key leaves the start value: a fresh upload.
  std::string upload_id;
  int offset = 0;
  (void)store.GetParam(id_key, &upload_id);
  (void)store.GetParamInt(offset_key, &offset);
  if (offset < 0) {
    // Not an offset this code writes; start over rather than fail every run.
    offset = 0;
    upload_id.clear();
  }

  const off_t file_size = MeasureFile(full_path);
  if ((off_t)-1 == file_size) {
    QS_LOG_CONDITION("(off_t)-1 == file_size", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }
  // The stored offset is an int; a larger file could not be resumed.
  if (file_size > static_cast<off_t>(INT_MAX)) {
    QS_LOG_CONDITION("file_size <= INT_MAX", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }

  int offset_error_count = 0;
  Headers headers;
  std::vector<char> response;
  while (offset < file_size) {
    const off_t chunk = std::min(kChunkSize, file_size - offset);
    const bool finish = offset + chunk == file_size;
    PostponeTimedPoweroff();
    headers.clear();
    const std::string url = service_.ChunkUrl(path, &headers, upload_id, offset, finish);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    response.clear();
    const Uploader::Error sent =
        uploader_.UploadPart(full_path, static_cast<size_t>(offset), static_cast<size_t>(chunk),
                             url, headers, &response);
    if (sent != Uploader::kUploadHttpError) {
      // A stop or a lost network leaves the keys as they were: the chunk in
      // flight counts as not sent.
      const int err = UploadResultCode(service_, uploader_, sent);
      if (err != DropboxProtocol::kSuccess) {
        QS_LOG_ERR(err);
        return err;
      }
    }
    // Counted as sent before the answer is judged, so a rejected chunk is
    // skipped rather than sent again.
    offset += static_cast<int>(chunk);
    (void)store.SetParamInt(offset_key, offset);
    if (!response.empty()) {
      utilities::JsonParser parser;
      if (parser.Init(response) == 0 && upload_id.empty()) {
        upload_id = parser.GetString("session_id");
        (void)store.SetParam(id_key, upload_id);
      }
    }

    const long http_status = uploader_.GetStatus().http_status;
    if (http_status == 404) {
      // The session is gone: the whole file again, in a new one.
      upload_id.clear();
      offset = 0;
      (void)store.SetParam(id_key, upload_id);
      (void)store.SetParamInt(offset_key, offset);
      continue;
    }
    if (http_status == 400) {
      if (offset_error_count++ >= kRejectedChunksAllowed) {
        QS_LOG_CONDITION("offset_error_count > 3", "DropboxProtocol::kFail");
        return DropboxProtocol::kFail;
      }
      continue;
    }
    if (http_status == 200) continue;
    const int err = service_.ResponseCode(http_status, std::vector<char>());
    if (err != DropboxProtocol::kSuccess) {
      QS_LOG_ERR(err);
      return err;
    }
  }
  (void)store.RemoveParam(id_key);
  (void)store.RemoveParam(offset_key);
  return ParseUploadReply(service_, response, result);
}

int ChunkedUpload::UploadChecked(const std::string& path, FileMetadata** result) {
  FileMetadataManager& store = run_.store;
  const std::string full_path = run_.folder + path;
  const std::string key = path + kSessionSuffix;
  // Keys of the classic loop record neither size nor time, so their session
  // may hold another version's bytes.
  (void)store.RemoveParam(path + kUploadIdSuffix);
  (void)store.RemoveParam(path + kUploadedOffsetSuffix);

  Session fresh;
  if (!StampOf(full_path, &fresh.stamp)) {
    QS_LOG_CONDITION("StampOf(full_path)", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }
  Session session;
  std::string text;
  if (store.GetParam(key, &text) != 0 || !Decode(text, &session) ||
      !(session.stamp == fresh.stamp)) {
    session = fresh;
  }

  int restarts = 0;
  int waits = 0;  // 429s in a row
  std::vector<char> response;
  for (;;) {
    const int64_t chunk = std::min<int64_t>(kChunkSize, session.stamp.size - session.offset);
    const bool finish = session.offset + chunk == session.stamp.size;
    PostponeTimedPoweroff();
    Headers headers;
    const std::string url = service_.ChunkUrl(path, &headers, session.id, session.offset, finish);
    if (finish) {
      // The hash vouches for this request's bytes and the stamp, taken after
      // it, for the chunks before: a change at any moment meets one of them.
      FileStamp now;
      if (!AddContentHash(full_path, session.offset, chunk, &headers) ||
          !StampOf(full_path, &now) || !(now == session.stamp)) {
        QS_LOG(kLogError, "%s changed while it went up; it starts over", path.c_str());
        (void)store.RemoveParam(key);
        return DropboxProtocol::kErrServer;
      }
    }
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    response.clear();
    const Uploader::Error sent =
        uploader_.UploadPart(full_path, session.offset, chunk, url, headers, &response);
    if (sent != Uploader::kUploadHttpError) {
      // A stop or a lost network keeps the session for the next run.
      const int err = UploadResultCode(service_, uploader_, sent);
      if (err != DropboxProtocol::kSuccess) {
        QS_LOG_ERR(err);
        return err;
      }
    }
    const long http_status = uploader_.GetStatus().http_status;
    const std::string summary = http_status == 409 ? ErrorSummary(response) : "";
    // The service took nothing of a 429: the same request, once it may.
    if (http_status == 429 &&
        WaitOutRetryAfter(RetryAfterOf(response), ++waits, run_.running, path)) {
      continue;
    }
    if (http_status != 429) waits = 0;
    if (http_status == 200) {
      if (finish) {
        (void)store.RemoveParam(key);
        return ParseUploadReply(service_, response, result);
      }
      if (session.id.empty()) {
        utilities::JsonParser parser;
        if (!response.empty() && parser.Init(response) == 0) {
          session.id = parser.GetString("session_id");
        }
      }
      if (!session.id.empty()) {
        session.offset += chunk;
        (void)store.SetParam(key, Encode(session));
        continue;
      }
      // A start answered without a session: nothing to append to.
    } else if (!LostSession(http_status, summary)) {
      // A refused commit (a hash that does not match: the file changed) has
      // used the session up; the next run starts over.
      if (http_status == 409) (void)store.RemoveParam(key);
      const int err = service_.ResponseCode(http_status, std::vector<char>());
      QS_LOG_ERR(err);
      return err;
    }
    // The service no longer holds what was sent: never the rest alone.
    (void)store.RemoveParam(key);
    if (restarts++ >= kRestartsAllowed) {
      QS_LOG_CONDITION("restarts <= kRestartsAllowed", "DropboxProtocol::kFail");
      return DropboxProtocol::kFail;
    }
    session = fresh;
  }
}

int ParseUploadReply(SyncService& service, const std::vector<char>& response,
                     FileMetadata** result) {
  try {
    *result = service.ParseEntry(response);
  } catch (const Json::Exception& e) {
    // A record with a member of the wrong type; the file is not known to
    // have arrived.
    QS_LOG(kLogError, "bad upload reply: %s", e.what());
    return DropboxProtocol::kErrServer;
  }
  NotifyFileBrowser();
  return DropboxProtocol::kSuccess;
}

int UploadResultCode(SyncService& service, Uploader& uploader, Uploader::Error error) {
  switch (error) {
    case Uploader::kUploadOk:
      return DropboxProtocol::kSuccess;
    case Uploader::kUploadTransferFailed:
      return DropboxProtocol::kErrNoNetwork;
    case Uploader::kUploadHttpError:
      return service.ResponseCode(uploader.GetStatus().http_status, std::vector<char>());
    case Uploader::kUploadAborted:
      return DropboxProtocol::kStopped;
    default:
      return DropboxProtocol::kErrServer;
  }
}

}  // namespace dropbox
}  // namespace quillstone
