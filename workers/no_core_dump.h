// Keeps a worker's memory, which holds the account's token, out of core files.
//
// A worker's main calls ForbidCoreDumps first thing, before it reads any
// secret. The hard limit goes to 0 as well, so neither the worker nor a
// program it starts can raise it again. The process stays dumpable on
// purpose: that flag would also hand its /proc entries to root, and the
// stop command finds a root's workers through them.
#pragma once

#include <sys/resource.h>

namespace quillstone {
namespace workers {

inline void ForbidCoreDumps() {
  struct rlimit none = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);  // lowering a limit cannot be refused
}

}  // namespace workers
}  // namespace quillstone
