// failing_calls: loaded into a program before its libraries, it lets system calls fail.
//
// KESTRO_FAILING_CALLS holds rules with a semicolon behind each: CALL FILE ERROR [WHEN]
//   CALL   open, open-write (for writing), create, nameless (an open with O_TMPFILE), read, write,
//          send (a write without a place, as into a pipe), lock, copy, clone, link, rename, unlink,
//          sync, cut, stat, chmod, chown or attribute;
//          change for each that makes or changes a file, step for each of these and each read
//          behind the first
//   FILE   what the name of the file ends with, such as .dat; * for any. Where two are named, the
//          first one counts, for a copy the one that is read
//   ERROR  the number that errno gets; below 0: the process gets that signal, and the call is done
//   WHEN   #N: at the Nth such call alone; +N: from there on; @N: when byte N of the file is
//          concerned
// Copies are made in pieces of 20,000 bytes, and nothing waits for a disk.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

enum { kMostRules = 8, kMostText = 32, kPiece = 20000 };

static struct Rule {
  char call[kMostText];
  char file[kMostText];
  int error;
  char when;
  long number;
  long calls;
} rules[kMostRules];
static int rule_count = -1;

static void load_rules(void) {
  const char* at = getenv("KESTRO_FAILING_CALLS");
  rule_count = 0;
  for (; at != NULL && *at != '\0' && rule_count < kMostRules; at = strchr(at, ';') + 1) {
    struct Rule* rule = &rules[rule_count++];
    sscanf(at, " %31s %31s %d %c%ld", rule->call, rule->file, &rule->error, &rule->when,
           &rule->number);
  }
}

static int ends_with(const char* text, const char* end) {
  const size_t length = strlen(text);
  const size_t wanted = strlen(end);
  return strcmp(end, "*") == 0 || (length >= wanted && strcmp(text + length - wanted, end) == 0);
}

static int is_one_of(const char* name, const char* const* names) {
  while (*names != NULL && strcmp(name, *names) != 0) ++names;
  return *names != NULL;
}

static int is_meant(const char* rule, const char* call) {
  static const char* const changes[] = {"create", "nameless", "write", "copy",      "link",
                                        "rename", "sync",     "cut",   "attribute", NULL};
  static int has_changed = 0;
  const int change = is_one_of(call, changes);
  has_changed |= change;
  return strcmp(rule, call) == 0 || (change && strcmp(rule, "change") == 0) ||
         ((change || (has_changed && strcmp(call, "read") == 0)) && strcmp(rule, "step") == 0);
}

// Whether a call on a file fails, with errno.
static int fails(const char* call, const char* file, long from, long count) {
  if (rule_count < 0) load_rules();
  for (int i = 0; i < rule_count; ++i) {
    struct Rule* rule = &rules[i];
    if (!is_meant(rule->call, call) || !ends_with(file, rule->file)) continue;
    ++rule->calls;
    if (rule->when == '#' && rule->calls != rule->number) continue;
    if (rule->when == '+' && rule->calls < rule->number) continue;
    if (rule->when == '@' && (rule->number < from || rule->number >= from + count)) continue;
    if (rule->error < 0) {
      raise(-rule->error);
      continue;
    }
    errno = rule->error;
    return 1;
  }
  return 0;
}

static int fails_at(const char* call, int fd, long from, long count) {
  char link[32];
  char name[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, name, sizeof name - 1);
  name[length < 0 ? 0 : length] = '\0';
  return fails(call, name, from, count);
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

int open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t permissions = va_arg(more, mode_t);
  va_end(more);
  const int nameless = (flags & O_TMPFILE) == O_TMPFILE;
  if (fails(nameless ? "nameless" : "open", path, 0, 0)) return -1;
  if ((flags & O_CREAT) != 0 && fails("create", path, 0, 0)) return -1;
  if ((flags & O_ACCMODE) != O_RDONLY && fails("open-write", path, 0, 0)) return -1;
  return REAL(open)(path, flags, permissions);
}
ssize_t pread(int fd, void* to, size_t count, off_t at) {
  return fails_at("read", fd, at, (long)count) ? -1 : REAL(pread)(fd, to, count, at);
}
ssize_t write(int fd, const void* from, size_t count) {
  return fails_at("send", fd, 0, (long)count) ? -1 : REAL(write)(fd, from, count);
}
ssize_t pwrite(int fd, const void* from, size_t count, off_t at) {
  return fails_at("write", fd, at, (long)count) ? -1 : REAL(pwrite)(fd, from, count, at);
}
// A mapping would show what cannot be read.
void* mmap(void* at, size_t length, int protection, int flags, int fd, off_t offset) {
  if (fd >= 0 && (flags & MAP_SHARED) != 0) {
    if (rule_count < 0) load_rules();
    for (int i = 0; i < rule_count; ++i) {
      errno = ENODEV;
      if (is_meant(rules[i].call, "read")) return MAP_FAILED;
    }
  }
  return REAL(mmap)(at, length, protection, flags, fd, offset);
}
int fcntl(int fd, int command, ...) {
  va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  const int locks = command == F_SETLK || command == F_SETLKW || command == F_GETLK;
  const struct flock* lock = argument;
  if (locks && lock->l_type != F_UNLCK && fails_at("lock", fd, lock->l_start, lock->l_len)) {
    return -1;
  }
  return REAL(fcntl)(fd, command, argument);
}
ssize_t copy_file_range(int from, off_t* at, int to, off_t* there, size_t count, unsigned flags) {
  if (fails_at("copy", from, at == NULL ? 0 : *at, (long)count)) return -1;
  return REAL(copy_file_range)(from, at, to, there, count < kPiece ? count : kPiece, flags);
}
int ioctl(int fd, unsigned long request, ...) {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  if (request == FICLONE && fails_at("clone", fd, 0, 0)) return -1;
  return REAL(ioctl)(fd, request, argument);
}
int link(const char* from, const char* to) {
  return fails("link", from, 0, 0) ? -1 : REAL(link)(from, to);
}
int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) {
  if (fails("link", to, 0, 0)) return -1;
  return REAL(linkat)(from_folder, from, to_folder, to, flags);
}
int rename(const char* from, const char* to) {
  return fails("rename", to, 0, 0) ? -1 : REAL(rename)(from, to);
}
int unlink(const char* path) { return fails("unlink", path, 0, 0) ? -1 : REAL(unlink)(path); }
int fsync(int fd) { return fails_at("sync", fd, 0, 0) ? -1 : 0; }
int ftruncate(int fd, off_t size) {
  return fails_at("cut", fd, size, 0) ? -1 : REAL(ftruncate)(fd, size);
}
int fstat(int fd, struct stat* status) {
  return fails_at("stat", fd, 0, 0) ? -1 : REAL(fstat)(fd, status);
}
int fchmod(int fd, mode_t mode) {
  return fails_at("chmod", fd, 0, 0) ? -1 : REAL(fchmod)(fd, mode);
}
int fchown(int fd, uid_t owner, gid_t group) {
  return fails_at("chown", fd, 0, 0) ? -1 : REAL(fchown)(fd, owner, group);
}
int fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) {
  return fails_at("attribute", fd, 0, 0) ? -1 : REAL(fsetxattr)(fd, name, value, size, flags);
}
