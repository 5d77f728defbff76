// The service's content hash of a byte range of a file: SHA-256 of each
// 4 MiB block, then SHA-256 of the concatenated block digests, as 64
// lowercase hex digits. The service refuses an upload whose bytes do not
// give the hash sent with it, so a file that changes between the hash and
// the transfer cannot land as a mix.
//
// Threads: any; nothing is shared. The file is read in blocks, never whole.
#pragma once

#include <stdint.h>

#include <string>

namespace quillstone {
namespace dropbox {

// `size` bytes of the file at `path` from `offset`. False when the file
// cannot be opened or gives fewer bytes than asked for.
bool ContentHashOfRange(const std::string& path, int64_t offset, int64_t size, std::string* hex);

// Of bytes in memory; for the tests and for short bodies.
std::string ContentHashOf(const std::string& data);

}  // namespace dropbox
}  // namespace quillstone
