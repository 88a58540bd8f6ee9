// build: isbuild, iserase, isrename and isremlock.
#include <sys/stat.h>

#include <cerrno>

#include "common/io.h"
#include "isam/btree.h"
#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/frame.h"
#include "isam/keychain.h"
#include "isam/keytable.h"
#include "isam/locks.h"
#include "isam/opening.h"
#include "isam/process.h"
#include "isam/traced.h"
#include "locale/collation.h"
#include "txlog/audit.h"
#include "txlog/logfile.h"
#include "txlog/logwriter.h"

namespace isam {
namespace {

constexpr int kMaxRecordLength = 32511;
constexpr std::int32_t kFirstKeyNode = 2;

struct RecordLengths {
  int minimum;
  int maximum;
  bool variable;
};

// 0, or -1 with 132.
int check_lengths(int reclen, int mode, RecordLengths& lengths) {
  const bool variable = (mode & ISVARLEN) != 0;
  lengths = {variable ? isreclen : reclen, reclen, variable};
  if (reclen < 1 || reclen > kMaxRecordLength) return failed(kBadRecordLength);
  if (variable && (lengths.minimum < 1 || lengths.minimum >= reclen)) {
    return failed(kBadRecordLength);
  }
  return 0;
}

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

int fill_dictionary(const RecordLengths& lengths, const keydescr& key) {
  dictp->reset();
  dictp->set_d_idxsize(kPageSize - 1);
  dictp->set_d_dupsize(isdupsiz == 2 ? 2 : 4);
  dictp->set_d_recsize(lengths.minimum);
  dictp->set_d_maxrecsize(lengths.variable ? lengths.maximum : 0);
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

int lay_out(const RecordLengths& lengths, keydescr& key) {
  if (fill_dictionary(lengths, key) != 0 || adopt_dictionary() != 0) return -1;
  make_first_key_node();
  if (kyadd(key) != 0) return failed_unless_set(kBadKey);
  openp->key = key;
  return 0;
}

// A new pair is a pair at once, also where later changes may wait.
int end_building() {
  if (isexit() != 0) return -1;
  return filep->exclusives > 0 ? settle_exclusive() : 0;
}

int build_lock_mode(int mode) { return issingleuser ? ISEXCLLOCK : lock_mode_of(mode); }

// Takes the new pair for this open and fills it.
int set_up(OpenRecord& open, const char* name, const RecordLengths& lengths, keydescr& key,
           int mode) {
  make_current(open);
  const int lock_mode = build_lock_mode(mode);
  bt = Position{};
  if (lksemaphore(Semaphore::kExclusive) != 0) return -1;
  open.mode |= lock_mode;
  if (lkopenlock(lock_mode) != 0) {
    open.mode &= 0xFF;
    return -1;
  }
  if (lay_out(lengths, key) != 0 || write_delayed() != 0) return -1;
  if (!txlog::logs_changes()) return end_building();
  if (txlog::islogbuild(name, lengths.maximum, key, mode) != 0) return -1;
  if (end_building() == 0) return 0;
  txlog::take_back_logged();
  return -1;
}

int build(const char* name, int reclen, keydescr& key, int mode) {
  RecordLengths lengths{};
  if (check_lengths(reclen, mode, lengths) != 0 || mktemprec(reclen) != 0 || ckfilname(name) != 0 ||
      check_primary_key(key, lengths.minimum) != 0) {
    return -1;
  }
  if (build_lock_mode(mode) == 0) return failed(kBadArgument);
  isbatch(2);
  clear_errors();
  OpenRecord* open = allocopen();
  if (open == nullptr) return -1;
  open->mode = mode & (ISTRANS | ISNOLOG | ISVARLEN | ISANYPRIMARY | ISANYLENGTH | 3);
  if (make_pair(name) != 0) return abandon_open(*open);
  open->file = allocfile(name, ISINOUT);
  if (open->file != nullptr) {
    advise_random(*open->file);
    if (set_up(*open, name, lengths, key, mode) == 0) return isfd_of(*open);
    const KeepError keep;
    bfdrop(*open->file, INT32_MIN);  // nothing of it may be left in the pool
    open->file->flags |= kNotShared;
  }
  remove_pair(name);
  return abandon_open(*open);
}

// Opens a pair for this process alone, whatever its record format, without logging: the open, or
// -1.
int open_alone(const char* name) {
  const int mode = ISINOUT + ISEXCLLOCK + (txflag == kNotLogging ? 0 : ISNOLOG);
  const int isfd = isopen(name, mode);
  return isfd < 0 && iserrno == kBadArgument ? isopen(name, mode + ISVARLEN) : isfd;
}

// Calls `work` with each open of a file that the log knows of, up to one for which it fails: 0 or
// -1.
template <typename Work>
int for_each_logged(const FileRecord& file, Work work) {
  for (int isfd = 0; isfd < nopens; ++isfd) {
    OpenRecord* const open = open_of(isfd);
    const bool known = open != nullptr && open->file == &file && (open->flags & kLogged) != 0;
    if (known && work(*open) != 0) return -1;
  }
  return 0;
}

// Closes it, and its descriptors with it unless other opens use them.
void close_for_real(int isfd) {
  const int kept = std::exchange(ismaxfds, 0);
  isclose(isfd);
  ismaxfds = kept;
}

bool unlink_or_note(const std::string& path) {
  return common::system_calls().unlink(path.c_str()) == 0 || failed_system(errno) == 0;
}

// Removes the trail, which may be missing, and both files, each whether or not the others can go:
// whether any of the pair is gone. What could not go is told by iserrno.
bool unlink_all(const char* name, const std::string& trail) {
  clear_errors();
  if (!trail.empty() && !unlink_or_note(trail) && iserrno == ENOENT) clear_errors();
  const bool index_gone = unlink_or_note(mkidxname(name));
  return unlink_or_note(mkdatname(name)) || index_gone;
}

// The log learns that its opens of the file close, and then that the file goes: whether any of it
// is gone, as above; false with 121 also.
bool log_and_unlink(const FileRecord& file, const char* name, const std::string& trail) {
  txlog::LogHold hold;
  if (!hold.held() || for_each_logged(file, txlog::log_closed) != 0 ||
      txlog::islogerase(name) != 0 || !unlink_all(name, trail)) {
    return false;
  }
  hold.keep();
  static_cast<void>(for_each_logged(file, [](OpenRecord& open) {
    open.flags = static_cast<std::uint16_t>(open.flags & ~kLogged);
    return 0;
  }));
  return true;
}

int end_without_open() {
  if (iserrno == 0) {
    set_status("0000");
    return 0;
  }
  set_status("9090");
  return -1;
}

bool exists(const std::string& path) {
  struct stat status {};
  return common::system_calls().stat(path.c_str(), &status) == 0;
}

// Gives a file another name: 0, or -1 with iserrno.
int move_file(const std::string& from, const std::string& to) {
  if (common::system_calls().link(from.c_str(), to.c_str()) != 0) return failed_system(errno);
  return common::system_calls().unlink(from.c_str()) == 0 ? 0 : failed_system(errno);
}

int move_pair(const char* from, const char* to) {
  // The second file in the way would leave the pair split between two names.
  if (exists(mkidxname(to)) || exists(mkdatname(to))) return failed_system(EEXIST);
  if (move_file(mkidxname(from), mkidxname(to)) != 0) return -1;
  return move_file(mkdatname(from), mkdatname(to));
}

int log_and_move(const char* from, const char* to) {
  txlog::LogHold hold;
  if (!hold.held() || txlog::islogrename(from, to) != 0 || move_pair(from, to) != 0) return -1;
  hold.keep();
  return 0;
}

}  // namespace

void remove_pair(const std::string& name) {
  const KeepError keep;
  common::system_calls().unlink(mkidxname(name).c_str());
  common::system_calls().unlink(mkdatname(name).c_str());
}

int move_whole_pair(const std::string& from, const std::string& to) {
  const common::SystemCalls& calls = common::system_calls();
  const std::string from_index = mkidxname(from);
  const std::string to_index = mkidxname(to);
  const std::string from_data = mkdatname(from);
  const std::string to_data = mkdatname(to);
  if (calls.link(from_index.c_str(), to_index.c_str()) != 0) return failed_system(errno);
  if (calls.link(from_data.c_str(), to_data.c_str()) != 0) {
    failed_system(errno);
    calls.unlink(to_index.c_str());
    return -1;
  }
  const bool index_moved = calls.unlink(from_index.c_str()) == 0;
  if (index_moved && calls.unlink(from_data.c_str()) == 0) return 0;
  failed_system(errno);
  // Without its old name the index would be gone with the new one.
  if (index_moved && calls.link(to_index.c_str(), from_index.c_str()) != 0) return -1;
  remove_pair(to);
  return -1;
}

int name_collation() {
  if (locale::chkulxinit() != 0) return failed(kLocaleInvalid);
  dictp->set_d_collate(true);
  dictp->set_d_collname(locale::file_system_name());
  dictmodify();
  return 0;
}

}  // namespace isam

using namespace isam;

extern "C" int isbuild(const char* name, int reclen, struct keydescr* key, int mode) {
  return traced("isbuild", mode, name, Carries::kName, [=] {
    know_process();
    clear_errors();
    set_status("0000");
    const int isfd = key == nullptr ? failed(kBadArgument) : build(name, reclen, *key, mode);
    if (isfd < 0) set_status("9090");
    return isfd;
  });
}

static int erase_call(const char* name) {
  const int isfd = open_alone(name);
  if (isfd < 0) {
    constexpr std::int32_t kOpenData = 0x12;
    if (iserrno != ENOENT || iserrio != kOpenData) return -1;
    const KeepError keep;
    common::system_calls().unlink(mkidxname(name).c_str());
    return -1;
  }
  std::string trail;
  if (isenter(isfd, kToRead) == 0) {
    trail = txlog::audit_trail_name();
    isexit();
  }
  clear_errors();
  FileRecord& file = *open_of(isfd)->file;
  const bool gone =
      txflag == kNotLogging ? unlink_all(name, trail) : log_and_unlink(file, name, trail);
  const std::int32_t reason = iserrno;
  if (gone) file.flags |= kNotShared;
  close_for_real(isfd);
  clear_errors();
  if (reason != 0) failed_as(reason);
  return end_without_open();
}

extern "C" int iserase(const char* name) {
  return traced("iserase", kNoNumber, name, Carries::kName, [=] { return erase_call(name); });
}

static int rename_call(const char* oldname, const char* newname) {
  clear_errors();
  if (ckfilname(oldname) != 0 || ckfilname(newname) != 0) return end_without_open();
  const int isfd = open_alone(oldname);
  if (isfd < 0) return end_without_open();
  const auto move = txflag == kNotLogging ? move_pair : log_and_move;
  if (move(oldname, newname) == 0) name_file(*open_of(isfd)->file, newname);
  const std::int32_t reason = iserrno;
  isclose(isfd);
  if (reason != 0) failed_as(reason);
  return end_without_open();
}

extern "C" int isrename(const char* oldname, const char* newname) {
  return traced("isrename", kNoNumber, newname, Carries::kName,
                [=] { return rename_call(oldname, newname); });
}

extern "C" int isremlock(const char* name) {
  clear_errors();
  ckfilname(name);
  return end_without_open();
}
