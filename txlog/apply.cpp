#include "txlog/apply.h"

#include "isam/change.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/frame.h"
#include "isam/freelists.h"
#include "txlog/logfile.h"

namespace isam::txlog {

std::int64_t skippable_numbers = 0;

namespace {

int enter(int isfd) { return isenter(isfd, kToWrite | kKeptToo | kKeepAutoLock); }

int check_length(ConstBytes record) {
  const auto least = static_cast<std::size_t>(filep->reclen);
  const auto most = static_cast<std::size_t>(filep->maxreclen);
  return record.size() >= least && record.size() <= most ? 0 : failed(kBadLogRecord);
}

// Takes a number that the log says was used: 0, or -1 with 126.
int take_logged_number(std::int32_t number) {
  const std::int64_t skipped = std::int64_t{number} - dictp->d_nextdata() - 1;
  if (skipped > skippable_numbers || getdatrec(number) != 0) return failed(kBadRecordNumber);
  if (skipped > 0) skippable_numbers -= skipped;
  return 0;
}

int insert(std::int32_t number, ConstBytes record, How how) {
  if (check_length(record) != 0) return -1;
  if (how == How::kRedo && take_logged_number(number) != 0) return -1;
  if (wrtrecord(record, Current::kStays, number) > 0) return 0;
  const KeepError keep;
  if (how == How::kRedo) freerec(number, FreeList::kRecords);
  return -1;
}

// Runs `change` on the record with a number; a record that is not there is no failure.
template <typename Change>
int change_record(std::int32_t number, Change change) {
  const FoundRecord found = getcurrent(number);
  if (found.number > 0) return change(found);
  if (iserrno != kNoRecord) return -1;
  clear_errors();
  return 0;
}

}  // namespace

int lginsert(int isfd, std::int32_t number, ConstBytes record, How how) {
  if (enter(isfd) != 0) return -1;
  insert(number, record, how);
  return isexit();
}

int lgdelete(int isfd, std::int32_t number) {
  if (enter(isfd) != 0) return -1;
  change_record(number,
                [](const FoundRecord& found) { return delrecord(found.number, found.bytes); });
  return isexit();
}

int lgupdate(int isfd, std::int32_t number, ConstBytes record) {
  if (enter(isfd) != 0) return -1;
  if (check_length(record) == 0) {
    change_record(number, [&](const FoundRecord& found) {
      return rewrecord(found.number, found.bytes, record, Current::kStays);
    });
  }
  return isexit();
}

}  // namespace isam::txlog
