#include "isam/calls/explain.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/calls/opening.h"
#include "isam/files/files.h"

namespace isam {
namespace {

constexpr std::size_t kNameRoom = 128;  // a longer name is cut

struct Failure {
  const char* call = nullptr;  // null: none has failed
  int number = 0;
  std::int32_t error = 0;
  FailureDetail detail;
  bool has_name = false;
  std::array<char, kNameRoom> name{};
};
Failure last_failure;
std::string sentence;

struct Words {
  std::int32_t code;
  const char* text;
};
constexpr Words kWords[] = {
    {kDuplicate, "another record has this key in an index that allows no duplicates"},
    {kBadArgument, "a mode, length or number is out of range, or a pointer is null"},
    {kBadKey, "it has no such index; iskeyinfo tells those that it has"},
    {kTooManyFiles, "256 opens are in use; close some"},
    {kCorrupted, "it is damaged; close it everywhere and run kestro"},
    {kNotExclusive, "the call needs an open with ISEXCLLOCK"},
    {kLocked, "another process has the record or the file locked"},
    {kIndexExists, "it has an index of these parts already"},
    {kPrimaryIndex, "the primary index stays, unless it is opened with ISANYPRIMARY"},
    {kEndOfFile, "there is no further record in this direction"},
    {kNoRecord, "no record has this key or number"},
    {kNoCurrent, "no record is current; read one first"},
    {kFileInUse, "another open is in the way; try again when it is closed"},
    {kBadName, "the name is empty, ends in a slash or has more than 122 bytes"},
    {kNoMemory, "memory is used up"},
    {kBadCollation, "another locale orders it; set CLIENT_LOCALE as islanginfo tells"},
    {kLogRead, "the log cannot be read"},
    {kBadLogRecord, "a record of the log is damaged or does not fit those before it"},
    {kLogOpen, "the log cannot be opened, or one is open already"},
    {kLogWrite, "the log cannot be written; make room on its disk"},
    {kNoLog, "no log is open; call islogopen first"},
    {kNoBegin, "no transaction has begun"},
    {kBadRecordNumber, "the log does not go on from these files"},
    {kNoPrimaryKey, "it has no primary key; use isrewcurr, isrewrec, isdelcurr or isdelrec"},
    {kBadRecordLength, "the record length or, with ISVARLEN, isreclen is out of range"},
    {kAuditTrailExists, "it has an audit trail; take that away by isaudit first"},
    {kNoMoreLocks, "the system has no more locks; release some, or lock the whole file"},
    {kNotManualLock, "the call needs an open with ISMANULOCK"},
    {kLocaleInvalid, "the locale that CLIENT_LOCALE names is not installed"},
    {kFormatChange, "it is of another format, or has a locking method of before"},
    {kBadLogMagic, "the file is not a log"},
    {kTreeTooDeep, "an index has reached its greatest depth"},
};

// Names go to terminals: control characters do not.
std::string quoted(std::string_view name) {
  std::string text = "\"";
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    text += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  return text + '"';
}

bool is_of(const Failure& failure, std::string_view call) { return failure.call == call; }

std::string of_opening(int mode) {
  if (isstat4 == '9') {
    return (mode & ISVARLEN) != 0 ? "its records are of fixed length; leave ISVARLEN out"
                                  : "its records are of variable length; add ISVARLEN";
  }
  if (isstat4 != '7') return {};
  const int logging = mode & (ISTRANS | ISNOLOG);
  if (logging == (ISTRANS | ISNOLOG)) return "ISTRANS and ISNOLOG exclude each other";
  if (logging != 0 && txflag == kNotLogging) {
    return "the mode speaks of a log; call islogopen first";
  }
  if ((mode & 3) == 3) return "the mode names no access: ISINPUT, ISOUTPUT or ISINOUT";
  return "the mode names no lock mode; add ISMANULOCK, ISAUTOLOCK or ISEXCLLOCK";
}

std::string of_access(int number, const Open* open) {
  if (open == nullptr || open->kept) {
    return "no file is open under the number " + std::to_string(number);
  }
  return (open->mode & 3) == ISINPUT ? "it is open for reading only; open it with ISINOUT"
                                     : "it is open for writing only; open it with ISINOUT";
}

std::string of_length(const Geometry& geometry) {
  return "isreclen is " + std::to_string(isreclen) + "; its records have " +
         std::to_string(geometry.reclen) + " to " + std::to_string(geometry.maxreclen) + " bytes";
}

// What the call and its circumstances tell; empty where the code's own words must do.
std::string by_circumstances(const Failure& failure, const Open* open) {
  if (failure.detail.text != nullptr) return failure.detail.text;
  const bool opens = is_of(failure, "isopen");
  switch (failure.error) {
    case kDuplicate:
      if (is_of(failure, "isaddindex")) return "two records have one key; allow that by KF_DUPS";
      if (failure.detail.index == 0) return {};
      return "another record has this key in index " + std::to_string(failure.detail.index) +
             ", which allows no duplicates";
    case kNotOpen:
      return is_of(failure, "islogclose") ? "no log is open" : of_access(failure.number, open);
    case kBadArgument:
      if (opens) return of_opening(failure.number);
      return isstat3 == '4' && isstat4 == '4' && open != nullptr ? of_length(open->file->geometry)
                                                                 : std::string{};
    case kBadKey:
      if (!is_of(failure, "isbuild") && !is_of(failure, "isaddindex")) return {};
      return "the key description breaks a rule: parts of a known type within the record, at most "
             "8 of them and 120 bytes";
    case kFileInUse:
      if (!opens) return {};
      return lock_mode_of(failure.number) == ISEXCLLOCK
                 ? "somebody else has it open, and an exclusive open needs it alone"
                 : "somebody else has it open exclusively";
    default:
      return {};
  }
}

// iserrio in words.
std::string of_system() {
  constexpr const char* kOperations[] = {"",        "opening", "making", "seeking in",
                                         "reading", "writing", "locking"};
  constexpr const char* kFiles[] = {"", "index", "data", "audit", "lock", "semaphore"};
  const auto operation = static_cast<std::size_t>(iserrio >> 4);
  const auto file = static_cast<std::size_t>(iserrio & 15);
  std::string text;
  if (operation - 1 < std::size(kOperations) - 1 && file - 1 < std::size(kFiles) - 1) {
    text = std::string(kOperations[operation]) + " its " + kFiles[file] + " file failed: ";
  }
  return text + iserrtext(iserrno);
}

std::string reason_of(const Failure& failure, const Open* open) {
  if (failure.error < kDuplicate) return of_system();
  std::string reason = by_circumstances(failure, open);
  if (!reason.empty()) return reason;
  const auto* words = std::ranges::find(kWords, failure.error, &Words::code);
  return words == std::end(kWords) ? iserrtext(failure.error) : words->text;
}

std::string put_together(const Failure& failure) {
  const bool concerns_open = !failure.has_name && !is_of(failure, "isrecvr");
  const Open* const open = concerns_open ? open_of(failure.number) : nullptr;
  std::string text = failure.call;
  if (failure.has_name) {
    text += ' ' + quoted(failure.name.data());
  } else if (open != nullptr && !open->kept) {
    text += ' ' + quoted(open->file->name);
  }
  return text + ": " + reason_of(failure, open);
}

}  // namespace

void note_failure(const char* call, int number, const char* name) {
  last_failure.call = call;
  last_failure.number = number;
  last_failure.error = iserrno;
  const FailureDetail detail = std::exchange(failure_detail, {});
  last_failure.detail = detail.error == iserrno ? detail : FailureDetail{};
  last_failure.has_name = name != nullptr;
  if (name == nullptr) return;
  const std::size_t length = std::string_view(name).copy(last_failure.name.data(), kNameRoom - 1);
  last_failure.name[length] = '\0';
}

const char* explanation() {
  if (iserrno == 0) return "the last call has not failed";
  if (last_failure.call == nullptr || last_failure.error != iserrno) return iserrtext(iserrno);
  try {
    sentence = put_together(last_failure);
    return sentence.c_str();
  } catch (const std::bad_alloc&) {
    return iserrtext(iserrno);
  }
}

}  // namespace isam
