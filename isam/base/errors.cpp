#include "isam/base/errors.h"

#include <array>
#include <cerrno>
#include <cstring>

extern "C" {
std::int32_t iserrno = 0;
std::int32_t iserrio = 0;
char isstat1 = '0';
char isstat2 = '0';
char isstat3 = '0';
char isstat4 = '0';
std::int32_t isrecnum = 0;
std::int32_t isreclen = 0;
std::int32_t isdupsiz = 4;
}

namespace isam {

FailureDetail failure_detail;

namespace {

constexpr std::array<std::string_view, is_nerr - 100> kTexts = {
    "Duplicate record",
    "File not open",
    "Illegal argument",
    "Bad key descriptor",
    "Too many files",
    "Corrupted isam file",
    "Need exclusive access",
    "Record or file locked",
    "Index already exists",
    "Primary index",
    "End of file",
    "Record not found",
    "No current record",
    "File is in use",
    "File name too long",
    "Bad lock device",
    "Can't allocate memory",
    "Bad collating table",
    "Can't read log record",
    "Bad log record",
    "Can't open log file",
    "Can't write log record",
    "No transaction",
    "No shared memory",
    "No begin work yet",
    "Can't use nfs",
    "Bad rowid",
    "No primary key",
    "No logging",
    "Too many users",
    "No such dbspace",
    "No free disk space",
    "Rowsize too big",
    "Audit trail exists",
    "No more locks",
    "Tblspace does not exist",
    "No more extents",
    "Chunk table overflow",
    "Dbspace table overflow",
    "Logfile table overflow",
    "Global section disallowing access",
    "Table overflow",
    "Overflow of tblspace page",
    "Deadlock detected",
    "Key value locked",
    "System does not have disk mirroring",
    "The other copy of this disk is currently disabled or non-existent",
    "Archive in progress",
    "Dbspace is not empty",
    "MARVOLEN-VELDA daemon is no longer running",
    "",  // 150 has no text
    "illegal value in varchar length field",
    "Illegal message type received from remote process.",
    "Not in ISMANULOCK mode.",
    "Deadlock Timeout Expired - Possible Deadlock.",
    "Primary and Mirror chunks are bad",
    "reserved for future use",
    "reserved for future use",
    "reserved for future use",
    "Collation sequence invalid",
    "only one blob may be open at any time.",
    "no blob is open.",
    "BlobSpace does not exist.",
    "begin and end page stamps are different.",
    "Blob stamp is incorrect",
    "Blob Column does not exist.",
    "BlobSpace is full",
    "BlobPage size is not multiple of RPAGESIZ.",
    "archive is blocking BlobPage allocation.",
    "BLOB pages can't be allocated from a chunk until chunk add is logged.",
    "invalid use ob blob space.",
    "isam file format change detected",
};
static_assert(kTexts.back() == "isam file format change detected");

int told_as(int system_error) {
  if (system_error < 100) return system_error;
  return system_error == EDQUOT ? ENOSPC : EIO;
}

}  // namespace

std::string_view is_errlist(std::int32_t code) {
  if (code == kBadLogMagic) return "Not a log file";
  if (code == kTreeTooDeep) return "Index too deep";
  if (code < 100 || code >= is_nerr) return {};
  return kTexts[static_cast<std::size_t>(code - 100)];
}

int failed(Code code) {
  iserrno = code;
  return -1;
}

int failed_system(int system_error) {
  iserrno = told_as(system_error);
  return -1;
}

int failed_as(std::int32_t reason) {
  iserrno = reason;
  return -1;
}

int failed_system(int system_error, Operation operation, FileKind file) {
  iserrno = told_as(system_error);
  iserrio = static_cast<std::int32_t>(operation) + static_cast<std::int32_t>(file);
  return -1;
}

int failed_unless_set(Code code) {
  if (iserrno == 0) iserrno = code;
  return -1;
}

}  // namespace isam
