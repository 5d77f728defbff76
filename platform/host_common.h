// Helpers shared by the host stand-ins: folders, atomic file replacement,
// small state files and JSON text.
//
// Thread safety: every function is safe on any thread.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace quillstone {
namespace host {

// Makes `dir` and every missing folder above it. 0, or an errno value. The
// flush of each new folder's parent is deferred (DeferFolderSync).
int MakeDirs(const std::string& dir);

// Replaces `path` with `content` so that a reader sees the old file or the new
// one, never a mix: a temporary file in the same folder, written whole, synced
// when `durable`, then renamed over `path`. The folder is made when missing.
// The new file gets `mode` (less the umask). 0, or an errno value; on
// failure `path` is untouched.
int ReplaceFile(const std::string& path, const std::string& content, bool durable,
                mode_t mode = 0644);
// The same for a content made piece by piece, so that a large one is never
// held whole: `produce` hands each piece to the writer it is given, which
// returns 0 or an errno value, and returns the first error it met.
using PieceWriter = std::function<int(std::string_view piece)>;
int ReplaceFileWith(const std::string& path,
                    const std::function<int(const PieceWriter& write)>& produce, bool durable,
                    mode_t mode = 0644);

// Flushes a folder, so that renames into it survive a power cut. Best
// effort: the renames themselves have been done.
void SyncFolder(const std::string& folder);

// Puts off the flush of `folder` so that many renames into it share one
// fsync. The pending flushes run at FlushFolderSyncs, which whatever makes a
// record of those renames durable (the store before it flushes its log) calls
// first, and when more folders wait than a few dozen.
void DeferFolderSync(const std::string& folder);
void FlushFolderSyncs();

// Reads a whole file of at most `limit` bytes. 0, ENOENT when missing, EFBIG
// when longer than `limit`, or another errno value.
int ReadWholeFile(const std::string& path, size_t limit, std::string* content);

// True when a process with this id exists (also one we may not signal).
bool ProcessAlive(pid_t pid);

// Appends `text` as a JSON string literal, quotes included. Bytes that are not
// valid UTF-8 become U+FFFD, so readers with strict decoders can load the file.
void AppendJsonString(std::string* out, const std::string& text);

// A short text that tells device roots apart, for names that are not paths
// (shared memory, abstract sockets): 16 hex digits of FNV-1a of the root.
std::string RootTag();

// Whether the simulated network has a connection up now (QueryNetwork).
bool NetworkConnected();
// Binds a libcurl easy handle (CURL*) to the simulated network: while it is
// down, every connection the handle tries to open fails as CURLE_COULDNT_CONNECT.
// Easy transfers get this by themselves (see network.cpp); a transfer driven
// by the multi interface calls it.
void UseDeviceNetwork(void* easy);

// Fault injection for the host's fault tests. With QUILLSTONE_FAULT set to a
// list such as "sqlite:5,rename:2", the 5th call of FaultHit("sqlite") in this
// process returns true (and logs it), and so does the 2nd of "rename"; every
// other call returns false. Kinds in use: "sqlite" (each database operation
// of the Sqlite wrappers) and "rename" (te_rename).
bool FaultHit(const char* kind);

// Milliseconds of the monotonic clock.
long long MonotonicMs();

// Sleeps, waking early on nothing; a negative or zero value returns at once.
void SleepMs(long long ms);

}  // namespace host
}  // namespace quillstone
