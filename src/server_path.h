// Checks that keep what a server or a local name says inside the sync folder.
//
// A listing page is input from the network: its paths are refused before any
// of them reaches the disk when a component is empty, "." or "..", holds a
// backslash or a NUL, or when the local path would pass through a symbolic
// link. Local names that are not valid UTF-8 cannot be stored by the service
// and are never sent.
//
// Free functions; any thread. The checks look at the disk (lstat) where they
// take the sync folder, log each refusal at error level and count it, so that
// a run that refused something can end with an error after doing the rest.
#pragma once

#include <string>

namespace quillstone {
namespace dropbox {

struct FileMetadata;

// What a checked local path is about to be used for.
enum class PathUse {
  kWrite,       // a file or folder made or replaced below it: its folders count
  kRemoveTree,  // removed with everything below it through the shell: all of it counts
};

// True for a store path ("/a/b") whose components are all plain names: not
// empty, not "." or "..", without a backslash or a NUL. Text only.
bool IsPlainStorePath(const std::string& path);

// True when `path` (a store path, as above) may be used below `sync_folder`
// for `use`: it is plain, and no component that exists on the disk, from the
// sync folder down, is a symbolic link. For kRemoveTree also none that the
// removal command could widen beyond the folder. A refusal is logged and
// counted.
bool IsSafeServerPath(const std::string& sync_folder, const std::string& path, PathUse use);

// True when every path and name of a listing entry is plain; the last name
// must be one component. A refusal is logged; the caller ends the page, so it
// is not counted.
bool IsSafeServerEntry(const FileMetadata& entry);

// Counts a server item that could not be applied, as a refusal.
void NoteServerItemFailure();

// The refusals counted since the last call, which starts the count anew.
int TakeServerPathRefusals();

// True for well-formed UTF-8: no overlong form, no surrogate, nothing above
// U+10FFFF.
bool IsValidUtf8(const std::string& text);

}  // namespace dropbox
}  // namespace quillstone
