// iscluster: iscluster, which rewrites a pair in the order of one of its indexes.
#include <cerrno>
#include <utility>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/closing.h"
#include "isam/calls/clustercopy.h"
#include "isam/calls/opening.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/files/tempname.h"
#include "isam/keys/keychain.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

constexpr int kGuard = ISINOUT + ISEXCLLOCK + ISANYLENGTH;
constexpr int kClusterFlag = 16;  // marks the description of the index that gave the order

// What of the old pair the steps go by.
struct Old {
  int isfd;
  int mode;
  std::string name;
  dictinfo info{};
  int minimum = 0;
  int dup_width = 4;
};

int end_with(std::int32_t reason) {
  failed_as(reason);
  set_status("9090");
  return -1;
}

// Whether the open may be clustered by `key`, whose description it completes; fills `old`: 0, or -1
// with 103, 106, 113, 133 or a deeper error.
int look(int isfd, keydescr& key, Old& old) {
  Call call{isfd, {.access = Access::kToRead}};
  if (!call) return -1;
  if ((openp->mode & ISEXCLLOCK) == 0) {
    failed(kNotExclusive);
  } else if (dictp->d_auditnode() != 0) {
    failed(kAuditTrailExists);
  } else if (filep->usecount > 1 || filep->load != nullptr || openp->transaction.undoable) {
    // Changes to be undone are known by numbers that would not be theirs any more.
    failed(kFileInUse);
  } else if (key.nparts != 0 && kysearch(key, 0) < 0) {
    failed_unless_set(kBadKey);
  }
  old = {.isfd = isfd, .mode = openp->mode, .name = filep->name};
  old.minimum = filep->geometry.reclen;
  old.dup_width = dictp->d_dupsize();
  return call.end() == 0 ? isdictinfo(isfd, &old.info) : -1;
}

// Description `n` of the old pair as the new one is to have it; a failure is in iserrno.
keydescr key_of(const Old& old, int n, const keydescr& order) {
  keydescr k{};
  if (iskeyinfo(old.isfd, &k, n) != 0) return k;
  k.flags = static_cast<std::int16_t>(k.flags & ~kClusterFlag);
  if (kycompare(k, order) == 0) k.flags |= kClusterFlag;
  return k;
}

// Closes and removes a new pair, complete or not; iserrno stays.
void discard(int isfd, const std::string& name) {
  const std::int32_t reason = iserrno;
  isclose(isfd);
  remove_pair(name);
  failed_as(reason);
}

// Builds an empty pair like the old one: its open, or -1.
int isbnew(const Old& old, const std::string& name, const keydescr& order) {
  const bool variable = (old.info.di_nkeys & DI_VARLEN) != 0;
  const int keys = old.info.di_nkeys & ~DI_VARLEN;
  keydescr k = key_of(old, 1, order);
  if (iserrno != 0) return -1;
  isreclen = old.minimum;
  const std::int32_t dup_width = std::exchange(isdupsiz, old.dup_width);
  const int isfd = isbuild(name.c_str(), old.info.di_recsize, &k,
                           ISINOUT + ISEXCLLOCK + (variable ? ISVARLEN : 0));
  isdupsiz = dup_width;
  if (isfd < 0) return -1;
  for (int n = 2; n <= keys; ++n) {
    k = key_of(old, n, order);
    if (iserrno == 0 && k.nparts > 0) isaddindex(isfd, &k);
    if (iserrno != 0) {
      discard(isfd, name);
      return -1;
    }
  }
  return isfd;
}

// A recovery cannot know in which order equal keys came into the index.
AmongEquals order_of_equals(const Old& old, bool logging) {
  const bool repeatable = txlog::logstate.in_recovery || (logging && (old.mode & ISNOLOG) == 0);
  return repeatable ? AmongEquals::kAscending : AmongEquals::kAsIndexed;
}

// Fills the new pair with the records and the unique id of the old one: 0, or -1 with iserrno.
int fill(const Old& old, int to, const CopyOrder& order) {
  std::int32_t id = 0;
  if (copy_records(old.isfd, to, order, old.info.di_nrecords, old.info.di_recsize) != 0) return -1;
  return iscurruniq(old.isfd, &id) == 0 ? issetunique(to, id) : -1;
}

// Puts the new pair in the place of the old one: 0, or -1 with iserrno and the old one in place.
// Both are open, so that no other process gets at either meanwhile.
int swap_pairs(const Old& old, const TemporaryNames& names) {
  if (move_whole_pair(old.name, names.second) != 0) return -1;
  if (move_whole_pair(names.first, old.name) == 0) {
    remove_pair(names.second);
    return 0;
  }
  const KeepError keep;
  move_whole_pair(names.second, old.name);
  return -1;
}

// Nothing is logged while it lives.
class Unlogged {
 public:
  Unlogged() = default;
  Unlogged(const Unlogged&) = delete;
  Unlogged& operator=(const Unlogged&) = delete;
  ~Unlogged() { txflag = saved_; }
  [[nodiscard]] bool was_logging() const { return saved_ != kNotLogging; }

 private:
  int saved_ = std::exchange(txflag, kNotLogging);
};

// The log learns of the new pair, and that the old open closes: 0, or -1 with neither done.
int log_and_swap(const Old& old, const TemporaryNames& names, const keydescr& key) {
  Open& open = *open_of(old.isfd);
  txlog::LogHold hold;
  if (!hold.held()) return -1;
  make_current(open);
  if (txlog::islogidx(txlog::IndexEvent::kClustered, key) != 0 || txlog::log_closed(open) != 0 ||
      swap_pairs(old, names) != 0) {
    return -1;
  }
  hold.keep();
  open.logged = false;
  return 0;
}

int close_unlogged(int isfd) {
  const Unlogged unlogged;
  return close_in_use(*open_of(isfd));
}

// Puts a new pair in the place of the old one, whose open closes: an open of the new pair, which
// keeps other processes off it until the caller has it open; or -1 with everything as it was.
int cluster(const Old& old, keydescr& key) {
  const Unlogged unlogged;
  TemporaryNames names;
  if (!ismkname(old.name, names)) return failed_system(EEXIST);
  const int made = isbnew(old, names.first, key);
  if (made < 0) return -1;
  if (fill(old, made, {key, order_of_equals(old, unlogged.was_logging())}) != 0) {
    discard(made, names.first);
    return -1;
  }
  // Closing tells whether all was written. Nobody else looks for the pair under this name.
  const int guard = isclose(made) == 0 ? isopen(names.first.c_str(), kGuard) : -1;
  const bool logs = unlogged.was_logging() && (old.mode & ISNOLOG) == 0;
  if (guard >= 0 && (logs ? log_and_swap(old, names, key) : swap_pairs(old, names)) == 0) {
    name_file(*open_of(guard)->file, old.name);
    const KeepError keep;
    isclose(old.isfd);
    return guard;
  }
  const KeepError keep;
  if (guard >= 0) isclose(guard);
  remove_pair(names.first);
  return -1;
}

}  // namespace
}  // namespace isam

using namespace isam;

// The open as it was: isbuild() may have made it with bits that isopen() takes only with a log.
static int open_again(const Old& old) {
  const int logging = txflag == kNotLogging ? old.mode & (ISTRANS | ISNOLOG) : 0;
  const int isfd = isopen(old.name.c_str(), old.mode & ~logging);
  if (isfd >= 0) open_of(isfd)->mode |= logging;
  return isfd;
}

static int cluster_call(int isfd, keydescr* key) {
  if (key == nullptr) return end_with(kBadArgument);
  Old old{};
  close_kept_beside(isfd);
  if (look(isfd, *key, old) != 0) return -1;
  // No pair whose files go, or get another name, may stay open without a user.
  const int kept = std::exchange(ismaxfds, 0);
  close_idle_files();
  const int guard = cluster(old, *key);
  ismaxfds = kept;
  if (guard < 0) return end_with(iserrno);
  const int opened = open_again(old);
  const KeepError keep;
  const char status[5] = {isstat1, isstat2, isstat3, isstat4, 0};
  close_unlogged(guard);
  set_status(status);
  return opened;
}

extern "C" int iscluster(int isfd, struct keydescr* key) {
  return traced("iscluster", isfd, reinterpret_cast<const char*>(key), Carries::kDescription,
                [=] { return cluster_call(isfd, key); });
}
