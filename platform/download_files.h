// What a download keeps beside its target while it runs and after it was
// cut short: the partial data ("<name>.downloading") and a record of what it
// continues ("<name>.progress": the address, the ETag, the announced size,
// the bytes flushed), so a later run can ask for the rest with a range.
//
// Host stand-in only: the downloader's own helpers, free functions without
// state; any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace quillstone {
namespace utilities {
namespace kept {

inline constexpr char kPartSuffix[] = ".downloading";
inline constexpr char kRecordSuffix[] = ".progress";
// The record is replaced through this name; it ends in ".progress" too, so a
// leftover is removed by the next scan like the record itself.
inline constexpr char kRecordTempSuffix[] = ".new.progress";

// The name of what is kept beside `target` under `suffix`: the target's name
// and the suffix, or, when that would not fit in a name, the name cut at a
// character boundary, "~", a hash of the whole name, and the suffix. The
// suffix stays last, so the scan recognises a leftover by it in either form.
std::string Beside(const std::string& target, const char* suffix);

// What is known of a partial download kept for a later range request.
struct ProgressRecord {
  std::string url;
  std::string etag;
  int64_t size = -1;   // the size the service announced
  int64_t bytes = -1;  // bytes of the data file that were flushed
};

// False for a missing, torn or incomplete record.
bool ReadRecord(const std::string& path, ProgressRecord* record);
// Written to a temporary name, flushed and renamed, so that a crash leaves
// the old record or the new one; the folder is flushed too.
bool WriteRecord(const std::string& target, const ProgressRecord& record);
// Removes the partial data and the records kept for `target`.
void RemoveKept(const std::string& target);

// Writes all of `data`, going on after interruptions; false on an error.
bool WriteAll(int fd, const char* data, size_t size);
// The folder of `path` with its "/"; "." for a bare name.
std::string FolderOf(const std::string& path);
// Flushes the folder of `path`, so that a rename into it survives a power cut.
void SyncFolderOf(const std::string& path);

}  // namespace kept
}  // namespace utilities
}  // namespace quillstone
