// isopen: isopen, isclose and iscleanup; what opens leave behind.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "common/io.h"
#include "environment/settings.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/closing.h"
#include "isam/calls/cursor.h"
#include "isam/calls/opening.h"
#include "isam/calls/process.h"
#include "isam/calls/traced.h"
#include "isam/calls/transactions.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/keys/keytable.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"
#include "isam/pool/mark.h"
#include "isam/tree/btree.h"

namespace isam {

bool issingleuser = false;
bool opens_marked = false;

int lock_mode_of(int mode) {
  switch (mode & 0xFF00) {
    case ISAUTOLOCK:
    case 0x300:  // has no name in isam.h
      return ISAUTOLOCK;
    case ISMANULOCK:
      return ISMANULOCK;
    case ISEXCLLOCK:
    case 0x500:  // nor has this
      return ISEXCLLOCK;
    default:
      return 0;
  }
}

void advise_random(const OpenPair& file) {
  // Without this, small writes into pages that were read far ahead cost many times as much.
  ::posix_fadvise(file.index.fd, 0, 0, POSIX_FADV_RANDOM);
  ::posix_fadvise(file.data.fd, 0, 0, POSIX_FADV_RANDOM);
}

int adopt_dictionary() {
  OpenPair& file = *filep;
  const int reclen = dictp->d_recsize();
  const bool varlen = dictp->d_maxrecsize() != 0;
  const Geometry stored{.reclen = reclen,
                        .maxreclen = varlen ? dictp->d_maxrecsize() : reclen,
                        .idxsize = dictp->d_idxsize(),
                        .dupsize = dictp->d_dupsize(),
                        .varlen = varlen};
  if (file.geometry == stored) return 0;
  if (file.usecount > 1) return failed(kCorrupted);
  // An idle pair may have pages of other sizes in the pool.
  if (file.geometry.reclen != 0) bfignor(file);
  file.cached.greatest_node = file.cached.greatest_record = 0;
  file.geometry = stored;
  return 0;
}

int abandon_open(Open& open) {
  {
    const KeepError keep;
    if (openp == &open && open.file != nullptr) {
      // The open's mode includes a lock mode only while the open lock is held.
      if ((open.mode & 0xFF00) != 0) lkopenlock(0);
      release_semaphore();
    }
    freeopen(open);
    if (openp == &open) openp = nullptr;
  }
  isstat1 = '9';
  isstat2 = '0';
  if (isstat3 == '0') isstat3 = '9';
  return -1;
}

namespace {

int refuse_mode(char last) {
  isstat3 = '3';
  isstat4 = last;
  return failed(kBadArgument);
}

// Whether what a mode says of logging is possible: 0, or -1 with 102. That is looked at before the
// name, the rest of the mode (check_access) after it.
int check_logging(int mode) {
  const int logging = mode & (ISTRANS | ISNOLOG);
  const bool bad = txflag == kNotLogging ? logging != 0 : logging == (ISTRANS | ISNOLOG);
  return bad ? refuse_mode('7') : 0;
}

int check_access(int mode) {
  return (mode & 3) == 3 || lock_mode_of(mode) == 0 ? refuse_mode('7') : 0;
}

void tell_system_error() {
  if (iserrno != ENOENT && iserrno != EACCES) return;
  isstat3 = '3';
  isstat4 = iserrno == ENOENT ? '5' : '7';
}

// An even d_idxsize is one of a later format.
int refuse_dictionary() { return failed(dictp->d_idxsize() % 2 == 0 ? kFormatChange : kCorrupted); }

// Tests of the dictionary that only an open makes. adopt_dictionary() has copied its lengths to the
// open pair's Geometry already.
int validate() {
  const bool lengths_agree =
      filep->geometry.reclen > 0 && filep->geometry.maxreclen >= filep->geometry.reclen;
  const bool sound = dictp->d_idxsize() < kMaxStoredNodeSize && lengths_agree &&
                     (dictp->d_dupsize() == 2 || dictp->d_dupsize() == 4);
  if (!sound) return refuse_dictionary();
  const auto* keys = file_keys();
  if (keys == nullptr) return iserrno == kCorrupted ? refuse_dictionary() : -1;
  return keys->empty() ? refuse_dictionary() : 0;
}

// A known lock method other than the current one gives way to that: 0, or -1 with iserrno, also for
// an unknown one. Without RESETLOCK dictread() has refused all but 0 and the current one. To write
// the dictionary, the call, which may share the semaphore, takes it anew, exclusively; an exclusive
// open needs none.
int adopt_lock_method() {
  const int method = dictp->d_lockmethod();
  if (method == kLockMethod) return 0;
  const bool known = method == 0 || method == 3 || method == 4 || method == 5 || method == 7;
  if (!known) return failed(method < kLockMethod ? kFormatChange : kCorrupted);
  if (filep->locks.exclusives == 0) {
    lksemaphore(Semaphore::kRelease);
    if (lksemaphore(Semaphore::kExclusive) != 0 || dictread() != 0) return -1;
  }
  dictp->set_d_lockmethod(kLockMethod);
  return write_handed_out();
}

int check_record_format(int mode) {
  if ((mode & ISANYLENGTH) != 0) return 0;
  return ((mode & ISVARLEN) != 0) == filep->geometry.varlen ? 0 : refuse_mode('9');
}

bool leads_to(const std::string& path, dev_t device, ino_t inode) {
  struct stat status {};
  return common::system_calls().stat(path.c_str(), &status) == 0 && status.st_dev == device &&
         status.st_ino == inode;
}

// Whether the name, relative to the folder of the moment, still leads to the pair.
bool is_pair_of(const OpenPair& file, const char* name) {
  return leads_to(mkidxname(name), file.index.device, file.index.inode) &&
         leads_to(mkdatname(name), file.data.device, file.data.inode);
}

bool is_there(const std::string& path) {
  struct stat status {};
  return common::system_calls().stat(path.c_str(), &status) == 0;
}

// Whether a pair has the name although it could not be opened: it is being replaced.
bool was_replaced(const char* name) {
  return iserrno == ENOENT && is_there(mkidxname(name)) && is_there(mkdatname(name));
}

// Until the open lock was had, an exclusive open of another process may have been there. It writes
// its dictionary when it closes: so the dictionary is read again. It may also have moved, replaced
// or removed the pair. 0, or -1: with ENOENT when the name does not lead to the pair any more; the
// pair then takes no other open and is closed with this one.
int look_again(const char* name, Entry entry) {
  if (filep->usecount > 1) return 0;
  if (is_pair_of(*filep, name)) return reread_dictionary(entry);
  filep->takes_no_open = true;
  failed_system(ENOENT);
  if (is_there(mkidxname(name)) && !is_there(mkdatname(name))) {
    failed_system(ENOENT, Operation::kOpen, FileKind::kData);
  }
  tell_system_error();
  return -1;
}

// A pair whose last exclusive open was not closed well is not opened: 0, or -1 with 105 or the
// system's error.
int look_for_mark() {
  forget_exclusive();  // what an earlier exclusive open of this process knew
  const int found = find_mark(*filep);
  if (found <= 0 || opens_marked) return std::min(found, 0);
  failure_detail = {
      .error = kCorrupted,
      .text = "a program that had it open exclusively has ended without closing it; run kestro"};
  return failed(kCorrupted);
}

// Locks the pair that has been entered, checks that it is sound and what the mode asks for, and
// puts the open before the first item of the primary index: 0 or -1.
int lock_and_validate(Open& open, const char* name, int mode, Entry entry) {
  const int lock_mode = lock_mode_of(mode);
  const bool was_shared = filep->locks.exclusives == 0;  // before lkopenlock() counts this open
  open.mode |= lock_mode;
  if (lkopenlock(lock_mode) != 0) {
    open.mode &= 0xFF;
    return -1;
  }
  if (look_again(name, entry) != 0 || (was_shared && look_for_mark() != 0)) return -1;
  if (adopt_dictionary() != 0) return -1;
  if (adopt_lock_method() != 0 || check_record_format(mode) != 0 || validate() != 0) return -1;
  if (mktemprec(filep->geometry.maxreclen) != 0) return -1;
  open.key = filep->cached.keys.front();
  stand_before_first(open.cursor);
  isreclen = filep->geometry.maxreclen;
  return 0;
}

int set_up(Open& open, const char* name, int mode) {
  const Entry entry{.access = static_cast<Access>((mode & 3) + 1),
                    .shared = true,
                    .any_locale = (mode & ISANYLENGTH) != 0,
                    .goes_on = true};  // the next call tells a late write that failed
  Call call{isfd_of(open), entry};
  if (!call) {
    // A repair that puts a new index in the place of this one has erased this one's magic: 105.
    // With ENOENT instead, open_pair() tries again and opens the new one.
    const bool replaced = iserrno == kCorrupted && filep != nullptr && !is_pair_of(*filep, name);
    return replaced ? failed_system(ENOENT) : -1;
  }
  if (lock_and_validate(open, name, mode, entry) == 0) return call.end();
  call.give_up();
  return -1;
}

// An open that was closed in this transaction and serves again; null for none.
Open* find_kept(const char* name, int mode) {
  const int wanted = (mode & 0xFF) | lock_mode_of(mode);
  for (int isfd = 0; isfd < nopens; ++isfd) {
    Open* const open = open_of(isfd);
    if (open != nullptr && open->kept && open->mode == wanted && !open->file->takes_no_open &&
        open->file->name == name && is_pair_of(*open->file, name)) {
      return open;
    }
  }
  return nullptr;
}

int use_again(Open& open) {
  const int isfd = isfd_of(open);
  Call call{isfd, {.access = Access::kToRead, .shared = true, .kept_too = true}};
  if (!call) return -1;
  const auto* keys = file_keys();
  if (keys == nullptr || keys->empty()) {
    failed_unless_set(kCorrupted);
  } else {
    open.key = keys->front();
    stand_before_first(call.cursor());
    isreclen = filep->geometry.maxreclen;
    open.kept = false;
  }
  return call.end() == 0 ? isfd : -1;
}

int open_anew(const char* name, int mode) {
  clear_errors();
  set_status("0000");
  Open* open = allocopen();
  if (open == nullptr) return -1;
  open->mode = mode & 0xFF;
  open->file = allocfile(name, mode & 0xFF);
  if (open->file == nullptr) {
    tell_system_error();
    return abandon_open(*open);
  }
  if (open->file->usecount == 1) advise_random(*open->file);
  return set_up(*open, name, mode) == 0 ? isfd_of(*open) : abandon_open(*open);
}

int open_pair(const char* name, int mode) {
  constexpr int kTries = 3;  // while the pair is being replaced
  if (issingleuser) mode = (mode & 0xFF) | ISEXCLLOCK;
  if (check_logging(mode) != 0 || ckfilname(name) != 0 || check_access(mode) != 0) return -1;
  isbatch(2);  // gives the semaphore back that batch mode keeps; batch mode itself goes on
  clear_errors();
  if (Open* const kept = find_kept(name, mode)) return use_again(*kept);
  int isfd = open_anew(name, mode);
  for (int tries = 1; isfd < 0 && was_replaced(name) && tries < kTries; ++tries) {
    isfd = open_anew(name, mode);
  }
  return isfd;
}

int open_call(const char* name, int mode) {
  know_process();
  clear_errors();
  set_status("0000");
  const int isfd = open_pair(name, mode);
  if (isfd >= 0) return isfd;
  isstat1 = '9';
  isstat2 = '0';
  if (isstat3 == '0') isstat3 = '9';
  return -1;
}

int close_call(int isfd) {
  know_process();
  Open* const open = open_of(isfd);
  if (open != nullptr && !open->kept) return close_in_use(*open);
  isenter(isfd, {});  // fails, and says why
  forget_inherited(isfd);
  isstat3 = '4';
  isstat4 = '2';
  return -1;
}

}  // namespace
}  // namespace isam

using namespace isam;

extern "C" int isopen(const char* name, int mode) {
  return traced("isopen", mode, name, Carries::kName, [=] { return open_call(name, mode); });
}

extern "C" int isclose(int isfd) {
  return traced("isclose", isfd, [=] { return close_call(isfd); });
}

// Rolls an open transaction back, also one of a log that is suspended.
static int end_transaction() {
  if (!txlog::transaction_is_open()) return 0;
  const bool suspended = txlog::logstate.is_suspended;
  if (suspended) isresumlog();
  const int result = isrollback();
  if (suspended) issusplog();
  return result;
}

extern "C" int iscleanup(void) {
  know_process();
  const std::int32_t error = iserrno;
  const std::int32_t place = iserrio;
  const char status[5] = {isstat1, isstat2, isstat3, isstat4, 0};
  FirstFailure failure;
  failure.note(end_transaction());
  for (int isfd = 0; isfd < nopens; ++isfd) {
    forget_inherited(isfd);
    Open* const open = open_of(isfd);
    if (open == nullptr) continue;
    failure.note(traced("isclose", isfd, [=] { return close_in_use(*open); }));
  }
  close_idle_files();
  if (failure.tell() != 0) {
    set_status("9090");
    return -1;
  }
  iserrno = error;
  iserrio = place;
  set_status(status);
  return 0;
}

extern "C" int isvclose(int n) {
  know_process();
  ismaxfds = n < 0 ? 0 : n;
  close_idle_files(ismaxfds);
  return 0;
}

extern "C" int issetsu(int n) {
  issingleuser = n != 0;
  return 0;
}
