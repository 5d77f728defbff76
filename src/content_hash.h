// The service's content hash of a local file: SHA-256 over each 4 MiB block
// of the file, then SHA-256 over the concatenated block digests, as lowercase
// hex. Comparing it with the hash a listing gives tells whether a local file
// and a server file hold the same bytes without moving either.
//
// Threads: any; no state is kept between calls.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace quillstone {
namespace dropbox {

// SHA-256 of `size` bytes at `data`, as 32 raw bytes.
std::string Sha256(const void* data, size_t size);

// The content hash of the file at `full_path`; empty when it cannot be read,
// which never equals a hash the service gives.
std::string ContentHashOfFile(const std::string& full_path);

}  // namespace dropbox
}  // namespace quillstone
