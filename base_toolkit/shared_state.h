// A small block of memory shared between processes under a name.
//
// The block starts with a 16-byte header that holds a process-shared lock,
// followed by the payload. Blocks are scoped by the device root, so two roots
// on one host never share a block. Thread safety: the lock works across
// threads and processes; payload stores are the caller's affair.
#pragma once

#include <string>

namespace quillstone {
namespace utilities {

class SharedStateImpl {
 public:
  SharedStateImpl();
  ~SharedStateImpl();  // detaches; the block stays for other processes
  SharedStateImpl(const SharedStateImpl&) = delete;
  SharedStateImpl& operator=(const SharedStateImpl&) = delete;

  // Creates the named block with `size` bytes of payload, or attaches to it
  // when it exists. 0 on success, else an errno value.
  int Init(const std::string& name, unsigned int size);

  int LockState();
  int UnlockState();

  // The payload, or null when no block is attached.
  void* GetState() const;

 private:
  void* block_;  // the mapping, header first
  size_t mapped_size_;
};

}  // namespace utilities
}  // namespace quillstone
