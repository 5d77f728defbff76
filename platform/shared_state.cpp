// Shared blocks in POSIX shared memory. The 16-byte header:
//   owner    atomic 32-bit thread id of the lock holder, 0 when free
//   magic    kMagic once the creator has set the header up
//   size     the payload size the block was made with
//   reserved zero
// The lock is a compare-and-swap on `owner`; a waiter takes it over when the
// holder no longer exists, so a killed process cannot block the others.
// A block that cannot be ours (another user's, too short, another magic) is
// refused rather than repaired: its content may matter to whoever made it.
#define QS_SOURCE_NAME "platform/shared_state"

#include "shared_state.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "device_root.h"
#include "host_common.h"
#include "host_device.h"
#include "qs_log.h"

namespace quillstone {
namespace utilities {

namespace {

constexpr uint32_t kMagic = 0x51534253;  // "QSBS"
constexpr size_t kHeaderSize = 16;
constexpr long long kSetupWaitMs = 2000;  // a creator that takes longer is taken for dead
constexpr long long kLockWaitMs = 10000;  // a live holder longer than this is stuck

struct Header {
  std::atomic<uint32_t> owner;
  std::atomic<uint32_t> magic;
  uint32_t size;
  uint32_t reserved;
};
static_assert(sizeof(Header) == kHeaderSize, "the header must fit its 16 bytes");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "the lock must work across processes");

Header* HeaderOf(void* block) { return static_cast<Header*>(block); }

uint32_t ThreadId() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

std::string ScopedName(const std::string& name) {
  return DeviceRoot().empty() ? name : name + "." + host::RootTag();
}

}  // namespace

SharedStateImpl::SharedStateImpl() : block_(nullptr), mapped_size_(0) {}

SharedStateImpl::~SharedStateImpl() {
  if (block_) munmap(block_, mapped_size_);
}

int SharedStateImpl::Init(const std::string& name, unsigned int size) {
  if (block_) {
    munmap(block_, mapped_size_);
    block_ = nullptr;
    mapped_size_ = 0;
  }
  if (name.size() < 2 || name[0] != '/' || name.find('/', 1) != std::string::npos) {
    QS_LOG(kLogError, "bad shared block name \"%s\"", name.c_str());
    return EINVAL;
  }
  std::string shm_name = ScopedName(name);
  size_t wanted = kHeaderSize + size;
  bool creator = false;
  int fd = -1;
  long long deadline = host::MonotonicMs() + kSetupWaitMs;
  for (;;) {
    fd = shm_open(shm_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      creator = true;
      break;
    }
    if (errno != EEXIST) break;
    fd = shm_open(shm_name.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0 || errno != ENOENT) break;
    // Removed between our two calls: try to create it again.
    if (host::MonotonicMs() > deadline) break;
  }
  if (fd < 0) {
    int err = errno;
    QS_LOG(kLogError, "shm_open %s: %s", shm_name.c_str(), strerror(err));
    return err;
  }
  if (!creator) {
    // The creator may still be between its create and its ftruncate.
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_uid != geteuid()) {
      close(fd);
      QS_LOG(kLogError, "shared block %s belongs to user %u", shm_name.c_str(),
             static_cast<unsigned>(st.st_uid));
      return EPERM;
    }
    for (;;) {
      if (fstat(fd, &st) != 0) {
        int err = errno;
        close(fd);
        return err;
      }
      if (static_cast<size_t>(st.st_size) >= kHeaderSize) break;
      if (host::MonotonicMs() > deadline) {
        QS_LOG(kLogError, "shared block %s was never set up; setting it up", shm_name.c_str());
        creator = true;
        break;
      }
      host::SleepMs(1);
    }
  }
  if (creator && ftruncate(fd, static_cast<off_t>(wanted)) != 0) {
    int err = errno;
    close(fd);
    QS_LOG(kLogError, "ftruncate %s: %s", shm_name.c_str(), strerror(err));
    return err;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int err = errno;
    close(fd);
    return err;
  }
  size_t mapped = static_cast<size_t>(st.st_size);
  if (mapped < wanted) {
    close(fd);
    QS_LOG(kLogError, "shared block %s holds %zu bytes, %zu asked for", shm_name.c_str(),
           mapped - std::min(mapped, kHeaderSize), static_cast<size_t>(size));
    return EMSGSIZE;
  }
  void* block = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  int map_err = errno;
  close(fd);
  if (block == MAP_FAILED) {
    QS_LOG(kLogError, "mmap %s: %s", shm_name.c_str(), strerror(map_err));
    return map_err;
  }
  Header* header = HeaderOf(block);
  if (creator) {
    header->size = size;
    header->magic.store(kMagic, std::memory_order_release);
  } else {
    for (;;) {
      uint32_t magic = header->magic.load(std::memory_order_acquire);
      if (magic == kMagic) break;
      if (magic != 0) {
        munmap(block, mapped);
        QS_LOG(kLogError, "shared block %s is not one of ours (magic %08x)", shm_name.c_str(),
               magic);
        return EBADMSG;
      }
      if (host::MonotonicMs() > deadline) {
        // The creator died after sizing the block; its payload is zero.
        header->size = size;
        header->magic.store(kMagic, std::memory_order_release);
        break;
      }
      host::SleepMs(1);
    }
  }
  block_ = block;
  mapped_size_ = mapped;
  return 0;
}

int SharedStateImpl::LockState() {
  if (!block_) return EINVAL;
  Header* header = HeaderOf(block_);
  uint32_t self = ThreadId();
  long long waited_since = -1;
  for (int spins = 0;; ++spins) {
    uint32_t expected = 0;
    if (header->owner.compare_exchange_strong(expected, self, std::memory_order_acquire)) return 0;
    if (expected == self) return EDEADLK;
    // kill() accepts a thread id on Linux, so a holder thread that ended or a
    // holder process that was killed both show as gone.
    if (!host::ProcessAlive(static_cast<pid_t>(expected))) {
      if (header->owner.compare_exchange_strong(expected, self, std::memory_order_acquire)) {
        QS_LOG(kLogError, "took over the lock of vanished holder %u", expected);
        return 0;
      }
      continue;
    }
    if (spins < 64) {
      continue;
    }
    long long now = host::MonotonicMs();
    if (waited_since < 0) waited_since = now;
    if (now - waited_since > kLockWaitMs) {
      QS_LOG(kLogError, "lock held by %u for over %lld ms; giving up", expected, kLockWaitMs);
      return ETIMEDOUT;
    }
    host::SleepMs(1);
  }
}

int SharedStateImpl::UnlockState() {
  if (!block_) return EINVAL;
  uint32_t self = ThreadId();
  if (!HeaderOf(block_)->owner.compare_exchange_strong(self, 0, std::memory_order_release)) {
    return EPERM;  // not ours: never free another holder's lock
  }
  return 0;
}

void* SharedStateImpl::GetState() const {
  return block_ ? static_cast<char*>(block_) + kHeaderSize : nullptr;
}

}  // namespace utilities

namespace host {

int RemoveSharedBlock(const std::string& name) {
  return shm_unlink(utilities::ScopedName(name).c_str()) == 0 ? 0 : errno;
}

}  // namespace host
}  // namespace quillstone
