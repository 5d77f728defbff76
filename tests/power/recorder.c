/* Records the file-system operations that a process makes under one folder,
 * so that the states a power cut can leave are built afterwards
 * (tests/power/crash.py). Loaded with LD_PRELOAD into the worker and
 * inherited by the children it runs through a shell.
 *
 * QS_POWER_LOG names the log, QS_POWER_PREFIX the folder: paths outside it
 * are passed through unrecorded. One line per operation, tab-separated,
 * paths and data in hex so any name survives:
 *   C ino path        a regular file created        T ino size   truncated
 *   W ino off data    bytes written at an offset    S ino        data flushed
 *   D path            a folder flushed              U path       unlinked
 *   M path / X path   folder made / removed         R ino from to   renamed
 * Files are named by inode, since data goes to an inode whatever its names.
 *
 * Thread safety: each operation and its line are one step under a process
 * lock, so the log order is the order the kernel saw. Processes append
 * whole lines with one write() on O_APPEND. */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE /* the wrappers define open() and friends themselves */
#undef _FILE_OFFSET_BITS
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define MAX_FDS 4096

static pthread_mutex_t g_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static int g_log = -1;
static const char* g_prefix;
static size_t g_prefix_len;
/* Per descriptor: the inode of a recorded file, or the path of a recorded
 * folder (for its fsync). Zero and null: not recorded. */
static unsigned long long g_ino[MAX_FDS];
static char* g_dir[MAX_FDS];

#define REAL(name) ((__typeof__(&name))real_fn(#name))

static void* real_fn(const char* name) { return dlsym(RTLD_NEXT, name); }

static ssize_t (*real_write_fn)(int, const void*, size_t);

__attribute__((constructor)) static void init(void) {
  real_write_fn = REAL(write);
  g_prefix = getenv("QS_POWER_PREFIX");
  const char* log = getenv("QS_POWER_LOG");
  if (!g_prefix || !log) return;
  g_prefix_len = strlen(g_prefix);
  int (*real_open)(const char*, int, ...) = REAL(open);
  g_log = real_open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

/* A growing line, written with one call when complete. */
struct line {
  char* buf;
  size_t len, cap;
};

static void put(struct line* l, const char* s, size_t n) {
  if (l->len + n + 1 > l->cap) {
    size_t cap = (l->cap ? l->cap * 2 : 256) + n;
    char* grown = realloc(l->buf, cap);
    if (!grown) abort(); /* a record that cannot be kept would make a false state */
    l->buf = grown;
    l->cap = cap;
  }
  memcpy(l->buf + l->len, s, n);
  l->len += n;
}

static void put_raw_hex(struct line* l, const void* data, size_t n) {
  static const char digits[] = "0123456789abcdef";
  const unsigned char* p = data;
  for (size_t i = 0; i < n; ++i) {
    char two[2] = {digits[p[i] >> 4], digits[p[i] & 15]};
    put(l, two, 2);
  }
}

static void put_hex(struct line* l, const void* data, size_t n) {
  put(l, "\t", 1);
  put_raw_hex(l, data, n);
}

static void put_num(struct line* l, unsigned long long v) {
  char text[32];
  put(l, text, (size_t)snprintf(text, sizeof text, "\t%llu", v));
}

static void emit(struct line* l) {
  put(l, "\n", 1);
  const char* p = l->buf;
  size_t left = l->len;
  while (left > 0) {
    ssize_t n = real_write_fn(g_log, p, left);
    if (n <= 0 && errno == EINTR) continue;
    if (n <= 0) abort();
    p += n;
    left -= (size_t)n;
  }
  free(l->buf);
}

/* The absolute path of `path` taken from `dirfd`, or 0 when it is not under
 * the prefix. */
static int resolve(int dirfd, const char* path, char out[PATH_MAX]) {
  if (g_log < 0 || !path) return 0;
  if (path[0] == '/') {
    snprintf(out, PATH_MAX, "%s", path);
  } else {
    char base[PATH_MAX];
    if (dirfd == AT_FDCWD) {
      if (!getcwd(base, sizeof base)) return 0;
    } else {
      char link[64];
      snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd);
      ssize_t n = readlink(link, base, sizeof base - 1);
      if (n <= 0) return 0;
      base[n] = 0;
    }
    /* A path too long to hold is not one of the device's. */
    if ((size_t)snprintf(out, PATH_MAX, "%.*s/%s", PATH_MAX / 2, base, path) >= PATH_MAX) return 0;
  }
  /* "dir/" and "dir" name one folder. */
  for (size_t n = strlen(out); n > 1 && out[n - 1] == '/'; --n) out[n - 1] = 0;
  return strncmp(out, g_prefix, g_prefix_len) == 0 &&
         (out[g_prefix_len] == '/' || out[g_prefix_len] == 0);
}

static void record_path(char kind, const char* path) {
  struct line l = {0};
  put(&l, &kind, 1);
  put_hex(&l, path, strlen(path));
  emit(&l);
}

static void record_ino(char kind, unsigned long long ino, int has_num, unsigned long long num) {
  struct line l = {0};
  put(&l, &kind, 1);
  put_num(&l, ino);
  if (has_num) put_num(&l, num);
  emit(&l);
}

static void forget(int fd) {
  if (fd < 0 || fd >= MAX_FDS) return;
  g_ino[fd] = 0;
  free(g_dir[fd]);
  g_dir[fd] = NULL;
}

static int do_open(int dirfd, const char* path, int flags, mode_t mode) {
  int (*real_openat)(int, const char*, int, ...) = REAL(openat);
  char full[PATH_MAX];
  if (!resolve(dirfd, path, full)) return real_openat(dirfd, path, flags, mode);
  pthread_mutex_lock(&g_lock);
  struct stat before;
  int existed = lstat(full, &before) == 0;
  int fd = real_openat(dirfd, path, flags, mode);
  int saved = errno;
  struct stat st;
  if (fd >= 0 && fd < MAX_FDS && fstat(fd, &st) == 0) {
    forget(fd);
    if (S_ISDIR(st.st_mode)) {
      g_dir[fd] = strdup(full);
    } else if (S_ISREG(st.st_mode)) {
      g_ino[fd] = (unsigned long long)st.st_ino;
      if (!existed) {
        struct line l = {0};
        put(&l, "C", 1);
        put_num(&l, g_ino[fd]);
        put_hex(&l, full, strlen(full));
        emit(&l);
      } else if ((flags & O_TRUNC) && (flags & O_ACCMODE) != O_RDONLY) {
        record_ino('T', g_ino[fd], 1, 0);
      }
    }
  }
  pthread_mutex_unlock(&g_lock);
  errno = saved;
  return fd;
}

static mode_t mode_arg(int flags, va_list ap) {
  return (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(ap, int) : 0;
}

#define OPEN_WRAPPER(name)                       \
  int name(const char* path, int flags, ...) {   \
    va_list ap;                                  \
    va_start(ap, flags);                         \
    mode_t mode = mode_arg(flags, ap);           \
    va_end(ap);                                  \
    return do_open(AT_FDCWD, path, flags, mode); \
  }
OPEN_WRAPPER(open)
OPEN_WRAPPER(open64)

#define OPENAT_WRAPPER(name)                              \
  int name(int dirfd, const char* path, int flags, ...) { \
    va_list ap;                                           \
    va_start(ap, flags);                                  \
    mode_t mode = mode_arg(flags, ap);                    \
    va_end(ap);                                           \
    return do_open(dirfd, path, flags, mode);             \
  }
OPENAT_WRAPPER(openat)
OPENAT_WRAPPER(openat64)

int creat(const char* path, mode_t mode) {
  return do_open(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, mode);
}
int creat64(const char* path, mode_t mode) { return creat(path, mode); }

static unsigned long long tracked(int fd) {
  return fd >= 0 && fd < MAX_FDS && g_log >= 0 ? g_ino[fd] : 0;
}

/* Writes at `off` (-1: at the descriptor's position, found afterwards). */
static void record_write(int fd, long long off, const struct iovec* iov, int count, ssize_t n) {
  if (n <= 0) return;
  if (off < 0) off = (long long)lseek(fd, 0, SEEK_CUR) - n;
  struct line l = {0};
  put(&l, "W", 1);
  put_num(&l, g_ino[fd]);
  put_num(&l, (unsigned long long)off);
  put(&l, "\t", 1);
  size_t left = (size_t)n;
  for (int i = 0; i < count && left > 0; ++i) {
    size_t take = iov[i].iov_len < left ? iov[i].iov_len : left;
    put_raw_hex(&l, iov[i].iov_base, take);
    left -= take;
  }
  emit(&l);
}

#define WRITE_BODY(call, off, iov, count) \
  if (!tracked(fd)) return call;          \
  pthread_mutex_lock(&g_lock);            \
  ssize_t n = call;                       \
  int saved = errno;                      \
  record_write(fd, off, iov, count, n);   \
  pthread_mutex_unlock(&g_lock);          \
  errno = saved;                          \
  return n;

ssize_t write(int fd, const void* buf, size_t count) {
  struct iovec one = {(void*)buf, count};
  WRITE_BODY(real_write_fn(fd, buf, count), -1, &one, 1)
}
ssize_t pwrite(int fd, const void* buf, size_t count, off_t off) {
  struct iovec one = {(void*)buf, count};
  WRITE_BODY(REAL(pwrite)(fd, buf, count, off), off, &one, 1)
}
ssize_t pwrite64(int fd, const void* buf, size_t count, off_t off) {
  struct iovec one = {(void*)buf, count};
  WRITE_BODY(REAL(pwrite64)(fd, buf, count, off), off, &one, 1)
}
ssize_t writev(int fd, const struct iovec* iov, int count) {
  WRITE_BODY(REAL(writev)(fd, iov, count), -1, iov, count)
}

static int flushed(int fd, int rc) {
  if (rc == 0 && fd >= 0 && fd < MAX_FDS && g_log >= 0) {
    if (g_ino[fd]) record_ino('S', g_ino[fd], 0, 0);
    if (g_dir[fd]) record_path('D', g_dir[fd]);
  }
  return rc;
}

#define FLUSH_BODY(call)         \
  pthread_mutex_lock(&g_lock);   \
  int rc = call;                 \
  int saved = errno;             \
  flushed(fd, rc);               \
  pthread_mutex_unlock(&g_lock); \
  errno = saved;                 \
  return rc;

int fsync(int fd) { FLUSH_BODY(REAL(fsync)(fd)) }
int fdatasync(int fd) { FLUSH_BODY(REAL(fdatasync)(fd)) }
/* Taken as a flush of the whole file: the project never flushes a range. */
int sync_file_range(int fd, off_t off, off_t n, unsigned int flags) {
  FLUSH_BODY(REAL(sync_file_range)(fd, off, n, flags))
}

static int truncated(int fd, const char* path, off_t size, int rc) {
  struct stat st;
  char full[PATH_MAX];
  if (rc != 0) return rc;
  if (path) {
    if (resolve(AT_FDCWD, path, full) && stat(full, &st) == 0)
      record_ino('T', (unsigned long long)st.st_ino, 1, (unsigned long long)size);
  } else if (tracked(fd)) {
    record_ino('T', g_ino[fd], 1, (unsigned long long)size);
  }
  return rc;
}

#define TRUNC_BODY(call, fd, path) \
  pthread_mutex_lock(&g_lock);     \
  int rc = call;                   \
  int saved = errno;               \
  truncated(fd, path, size, rc);   \
  pthread_mutex_unlock(&g_lock);   \
  errno = saved;                   \
  return rc;

int ftruncate(int fd, off_t size) { TRUNC_BODY(REAL(ftruncate)(fd, size), fd, NULL) }
int ftruncate64(int fd, off_t size) { TRUNC_BODY(REAL(ftruncate64)(fd, size), fd, NULL) }
int truncate(const char* path, off_t size) { TRUNC_BODY(REAL(truncate)(path, size), -1, path) }
int truncate64(const char* path, off_t size) { TRUNC_BODY(REAL(truncate64)(path, size), -1, path) }

int close(int fd) {
  pthread_mutex_lock(&g_lock);
  forget(fd);
  int rc = REAL(close)(fd);
  int saved = errno;
  pthread_mutex_unlock(&g_lock);
  errno = saved;
  return rc;
}

/* A name operation: `call` done under the lock, recorded when it worked. */
#define NAME_BODY(kind, dirfd, path, call)      \
  char full[PATH_MAX];                          \
  if (!resolve(dirfd, path, full)) return call; \
  pthread_mutex_lock(&g_lock);                  \
  int rc = call;                                \
  int saved = errno;                            \
  if (rc == 0) record_path(kind, full);         \
  pthread_mutex_unlock(&g_lock);                \
  errno = saved;                                \
  return rc;

int unlink(const char* path) { NAME_BODY('U', AT_FDCWD, path, REAL(unlink)(path)) }
int rmdir(const char* path) { NAME_BODY('X', AT_FDCWD, path, REAL(rmdir)(path)) }
int mkdir(const char* path, mode_t mode) { NAME_BODY('M', AT_FDCWD, path, REAL(mkdir)(path, mode)) }
int mkdirat(int dirfd, const char* path, mode_t mode) {
  NAME_BODY('M', dirfd, path, REAL(mkdirat)(dirfd, path, mode))
}
int unlinkat(int dirfd, const char* path, int flags) {
  NAME_BODY((flags & AT_REMOVEDIR) ? 'X' : 'U', dirfd, path, REAL(unlinkat)(dirfd, path, flags))
}

static int do_rename(int olddir, const char* from, int newdir, const char* to, unsigned int flags) {
  int (*real_renameat2)(int, const char*, int, const char*, unsigned int) = REAL(renameat2);
  char src[PATH_MAX], dst[PATH_MAX];
  int in_src = resolve(olddir, from, src), in_dst = resolve(newdir, to, dst);
  if (!in_src && !in_dst) return real_renameat2(olddir, from, newdir, to, flags);
  pthread_mutex_lock(&g_lock);
  struct stat st;
  unsigned long long ino = lstat(src, &st) == 0 ? (unsigned long long)st.st_ino : 0;
  int rc = real_renameat2(olddir, from, newdir, to, flags);
  int saved = errno;
  if (rc == 0) {
    struct line l = {0};
    put(&l, "R", 1);
    put_num(&l, ino);
    put_hex(&l, src, in_src ? strlen(src) : 0);
    put_hex(&l, dst, in_dst ? strlen(dst) : 0);
    emit(&l);
  }
  pthread_mutex_unlock(&g_lock);
  errno = saved;
  return rc;
}

int rename(const char* from, const char* to) { return do_rename(AT_FDCWD, from, AT_FDCWD, to, 0); }
int renameat(int olddir, const char* from, int newdir, const char* to) {
  return do_rename(olddir, from, newdir, to, 0);
}
int renameat2(int olddir, const char* from, int newdir, const char* to, unsigned int flags) {
  return do_rename(olddir, from, newdir, to, flags);
}
