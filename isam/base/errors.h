// errors: the library's codes and texts, and the one way to set them.
//
// Keeps   iserrno is set where a failure is understood and is not overwritten higher up
#pragma once

#include <cstdint>
#include <string_view>

#include "isam.h"

namespace isam {

enum Code : std::int32_t {
  kDuplicate = 100,
  kNotOpen = 101,
  kBadArgument = 102,
  kBadKey = 103,
  kTooManyFiles = 104,
  kCorrupted = 105,
  kNotExclusive = 106,
  kLocked = 107,
  kIndexExists = 108,
  kPrimaryIndex = 109,
  kEndOfFile = 110,
  kNoRecord = 111,
  kNoCurrent = 112,
  kFileInUse = 113,
  kBadName = 114,
  kNoMemory = 116,
  kBadCollation = 117,
  kLogRead = 118,
  kBadLogRecord = 119,
  kLogOpen = 120,
  kLogWrite = 121,
  kNoLog = 122,
  kNoBegin = 124,
  kBadRecordNumber = 126,
  kNoPrimaryKey = 127,
  kBadRecordLength = 132,
  kAuditTrailExists = 133,
  kNoMoreLocks = 134,
  kNotManualLock = 153,
  kLocaleInvalid = 159,
  kFormatChange = 171,
  kBadLogMagic = 21502,
  kTreeTooDeep = 26062,
};

// The first code past the message table.
inline constexpr std::int32_t is_nerr = 172;

// Text of a library code from 100 to is_nerr - 1, or of kBadLogMagic or kTreeTooDeep; empty for any
// other number.
[[nodiscard]] std::string_view is_errlist(std::int32_t code);

// iserrio has the operation in bits 4 to 7 and the file in bits 0 to 3.
enum class Operation : std::int32_t {
  kOpen = 0x10,
  kCreate = 0x20,
  kSeek = 0x30,
  kRead = 0x40,
  kWrite = 0x50,
  kLock = 0x60,
};
enum class FileKind : std::int32_t { kIndex = 1, kData = 2, kAudit = 3, kLock = 4, kSemaphore = 5 };

// Sets iserrno; iserrio stays. The result of this and the next ones is always -1, so that a caller
// can return it. (They are cold: so the compiler puts what comes to them apart from what each call
// runs, which is more than the processor's cache of instructions holds.)
[[gnu::cold]] int failed(Code code);
// The same for an error of the system; the second sets iserrio, too. iserrno becomes the errno when
// that is below 100. Another one would read as one of the library's own codes: EDQUOT becomes
// ENOSPC, any other becomes EIO.
[[gnu::cold]] int failed_system(int system_error);
[[gnu::cold]] int failed_system(int system_error, Operation operation, FileKind file);

// Sets iserrno to `reason`, an iserrno that the caller has kept over other steps. iserrio stays.
[[gnu::cold]] int failed_as(std::int32_t reason);

// Sets the code only when no deeper routine has set one.
[[gnu::cold]] int failed_unless_set(Code code);

// What a failing step knows beside its code, for isexplain(): it holds if the call fails with that
// code.
struct FailureDetail {
  std::int32_t error = 0;
  const char* text = nullptr;  // the reason
  int index = 0;               // number of the index
};
extern FailureDetail failure_detail;

inline void clear_errors() { iserrno = iserrio = 0; }

// The four status characters.
inline void set_status(const char (&four)[5]) {
  isstat1 = four[0];
  isstat2 = four[1];
  isstat3 = four[2];
  isstat4 = four[3];
}

// Keeps iserrno and iserrio over steps whose failure the caller does not tell, such as undoing what
// was done before an error: its end sets both as they were at its beginning.
class KeepError {
 public:
  KeepError() = default;
  KeepError(const KeepError&) = delete;
  KeepError& operator=(const KeepError&) = delete;
  ~KeepError() {
    iserrno = error_;
    iserrio = place_;
  }

 private:
  std::int32_t error_ = iserrno;
  std::int32_t place_ = iserrio;
};

// The first failure of several steps, to be told at the end. note() takes the result of a step,
// whose failure is in iserrno. tell() sets iserrno and iserrio to those of the first failure and
// gives -1; when there was none it clears both and gives 0.
class FirstFailure {
 public:
  void note(int result) {
    if (result == 0 || error_ != 0) return;
    error_ = iserrno;
    place_ = iserrio;
  }
  [[nodiscard]] int tell() const {
    iserrno = error_;
    iserrio = place_;
    return error_ == 0 ? 0 : -1;
  }

 private:
  std::int32_t error_ = 0;
  std::int32_t place_ = 0;
};

}  // namespace isam
