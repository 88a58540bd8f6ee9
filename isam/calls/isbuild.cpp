// isbuild: a new pair.
#include <sys/stat.h>

#include <cerrno>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/filelocale.h"
#include "isam/calls/opening.h"
#include "isam/calls/process.h"
#include "isam/calls/traced.h"
#include "isam/files/descriptor.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keytable.h"
#include "isam/log/audit.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

constexpr std::int32_t kFirstKeyNode = 2;

struct Sizes {
  int minimum = 0;  // of a record
  int maximum = 0;
  bool variable = false;
  int node = 0;
};

// 0, or -1 with 132.
int check_lengths(int reclen, int mode, Sizes& sizes) {
  const bool variable = (mode & ISVARLEN) != 0;
  sizes.minimum = variable ? isreclen : reclen;
  sizes.maximum = reclen;
  sizes.variable = variable;
  if (reclen < 1 || reclen > kMaxRecordLength) return failed(kBadRecordLength);
  if (variable && (sizes.minimum < 1 || sizes.minimum >= reclen)) {
    return failed(kBadRecordLength);
  }
  return 0;
}

// Checks the description and completes it: 0, or -1 with 103. Without parts it stands for the order
// of record numbers; a key in the order of a locale is not compressed.
int check_primary_key(keydescr& key, int minimum) {
  if (key.nparts == 0) {
    key.flags = 0;
    key.keylen = 0;
    return 0;
  }
  if (kylegal(key, minimum) != 0) return -1;
  if (kynchar(key)) key.flags = static_cast<std::int16_t>(key.flags & ~KF_COMPRESS);
  return 0;
}

int make_pair(const char* name) {
  const std::string index = mkidxname(name);
  if (makefile(index, FileKind::kIndex) != 0) return -1;
  if (makefile(mkdatname(name), FileKind::kData) == 0) return 0;
  common::system_calls().unlink(index.c_str());
  return -1;
}

int fill_dictionary(const Sizes& sizes, const keydescr& key) {
  dictp->reset();
  dictp->set_d_idxsize(sizes.node - 1);
  dictp->set_d_dupsize(isdupsiz == 2 ? 2 : 4);
  dictp->set_d_recsize(sizes.minimum);
  dictp->set_d_maxrecsize(sizes.variable ? sizes.maximum : 0);
  dictp->set_d_keysnode(kFirstKeyNode);
  dictp->set_d_nextnode(kFirstKeyNode);
  dictp->set_d_uniqid(1);
  dictp->set_d_lockmethod(kLockMethod);
  dictmodify();
  return kynchar(key) ? name_collation() : 0;
}

void make_first_key_node() {
  PageHold page = bfgetclr(kFirstKeyNode);
  page.set_frame(kEntriesOffset, kServiceNode, kKeyLevel);
}

int lay_out(const Sizes& sizes, keydescr& key) {
  if (fill_dictionary(sizes, key) != 0 || adopt_dictionary() != 0) return -1;
  make_first_key_node();
  if (kyadd(key) != 0) return failed_unless_set(kBadKey);
  openp->key = key;
  return 0;
}

// Ends the call that fills the pair. The changes of an exclusive open may wait, but not these: what
// other processes find is a complete pair, even if this one is killed.
int end_building() {
  if (isexit() != 0) return -1;
  return filep->locks.exclusives > 0 ? write_and_unmark() : 0;
}

int build_lock_mode(int mode) { return issingleuser ? ISEXCLLOCK : lock_mode_of(mode); }

// Takes the new pair for this open and fills it.
int set_up(Open& open, const char* name, const Sizes& sizes, keydescr& key, int mode) {
  make_current(open);
  const int lock_mode = build_lock_mode(mode);
  if (lksemaphore(Semaphore::kExclusive) != 0) return -1;
  open.mode |= lock_mode;
  if (lkopenlock(lock_mode) != 0) {
    open.mode &= 0xFF;  // without a lock mode: abandon_open() releases no open lock
    return -1;
  }
  // What cannot be written is not logged.
  if (lay_out(sizes, key) != 0 || write_delayed() != 0) return -1;
  if (!txlog::logs_changes()) return end_building();
  if (txlog::islogbuild(name, sizes.maximum, key, mode) != 0) return -1;
  if (end_building() == 0) return 0;
  txlog::take_back_logged();
  return -1;
}

}  // namespace

int build_pair(const char* name, int reclen, keydescr& key, int mode, int node) {
  Sizes sizes{.node = node};
  if (check_lengths(reclen, mode, sizes) != 0 || mktemprec(reclen) != 0 || ckfilname(name) != 0 ||
      check_primary_key(key, sizes.minimum) != 0) {
    return -1;
  }
  if (build_lock_mode(mode) == 0) return failed(kBadArgument);
  isbatch(2);  // what another open holds in batch mode goes before this one becomes current
  clear_errors();
  Open* open = allocopen();
  if (open == nullptr) return -1;
  open->mode = mode & (ISTRANS | ISNOLOG | ISVARLEN | ISANYPRIMARY | ISANYLENGTH | 3);
  if (make_pair(name) != 0) return abandon_open(*open);
  open->file = allocfile(name, ISINOUT);
  if (open->file != nullptr) {
    advise_random(*open->file);
    if (set_up(*open, name, sizes, key, mode) == 0) return isfd_of(*open);
    const KeepError keep;
    bfdrop(*open->file, INT32_MIN);  // nothing of it may be left in the pool
    open->file->takes_no_open = true;
  }
  remove_pair(name);
  return abandon_open(*open);
}

}  // namespace isam

using namespace isam;

extern "C" int isbuild(const char* name, int reclen, struct keydescr* key, int mode) {
  return traced("isbuild", mode, name, Carries::kName, [=] {
    know_process();
    clear_errors();
    set_status("0000");
    const int isfd =
        key == nullptr ? failed(kBadArgument) : build_pair(name, reclen, *key, mode, kPageSize);
    if (isfd < 0) set_status("9090");
    return isfd;
  });
}
