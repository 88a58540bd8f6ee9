// iserase: iserase, isrename and isremlock; how a pair goes, or gets another name.

#include <cerrno>
#include <string>
#include <utility>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/opening.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/log/audit.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"

namespace isam {
namespace {

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
int for_each_logged(const OpenPair& file, Work work) {
  for (int isfd = 0; isfd < nopens; ++isfd) {
    Open* const open = open_of(isfd);
    const bool known = open != nullptr && open->file == &file && open->logged;
    if (known && work(*open) != 0) return -1;
  }
  return 0;
}

// Closes an open, and the descriptors of its pair with it unless other opens use them.
void close_for_real(int isfd) {
  const int kept = std::exchange(ismaxfds, 0);
  isclose(isfd);
  ismaxfds = kept;
}

// Whether a file could be removed; if not, iserrno tells why.
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
bool log_and_unlink(const OpenPair& file, const char* name, const std::string& trail) {
  txlog::LogHold hold;
  if (!hold.held() || for_each_logged(file, txlog::log_closed) != 0 ||
      txlog::islogerase(name) != 0 || !unlink_all(name, trail)) {
    return false;
  }
  hold.keep();
  static_cast<void>(for_each_logged(file, [](Open& open) {
    open.logged = false;
    return 0;
  }));
  return true;
}

// The result of a call that ends outside of any open: 0, or -1 when iserrno is set.
int end_without_open() {
  if (iserrno == 0) {
    set_status("0000");
    return 0;
  }
  set_status("9090");
  return -1;
}

// Gives a file another name: 0, or -1 with iserrno.
int move_file(const std::string& from, const std::string& to) {
  if (common::system_calls().link(from.c_str(), to.c_str()) != 0) return failed_system(errno);
  return common::system_calls().unlink(from.c_str()) == 0 ? 0 : failed_system(errno);
}

// Gives a pair another name: 0, or -1 with iserrno; then the index may have the new name alone.
int move_pair(const char* from, const char* to) {
  // The second file in the way would leave the pair split between two names.
  if (common::file_exists(mkidxname(to)) || common::file_exists(mkdatname(to)))
    return failed_system(EEXIST);
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

}  // namespace isam

using namespace isam;

static int erase_call(const char* name) {
  const int isfd = open_alone(name);
  if (isfd < 0) {
    // Of a pair without its data file the index goes; the call fails all the same.
    constexpr std::int32_t kOpenData = 0x12;
    if (iserrno != ENOENT || iserrio != kOpenData) return -1;
    const KeepError keep;
    common::system_calls().unlink(mkidxname(name).c_str());
    return -1;
  }
  std::string trail;
  if (const Call call{isfd, {.access = Access::kToRead}}) trail = txlog::audit_trail_name();
  clear_errors();
  OpenPair& file = *open_of(isfd)->file;
  const bool gone =
      txflag == kNotLogging ? unlink_all(name, trail) : log_and_unlink(file, name, trail);
  const std::int32_t reason = iserrno;
  if (gone) file.takes_no_open = true;
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
  if (ckfilname(name) != 0) note_failure("isremlock", kNoNumber, name);
  return end_without_open();
}
