// isam_model: what the record calls of the library must answer, from a pair kept in memory.
//
// One pair: records by number, each index a sorted map, and any number of opens with a current key
// and a position each. Every function stands for the call of its name and returns what that call
// must return; the public members hold what it must leave in the library's variables.
//
// Needs   legal keys; numbers without values that compare equal in different bytes (-0.0)
// Never   touches a file, or knows of other processes
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "isam.h"

namespace testing_support {

// Which record is to be changed.
struct Target {
  enum { kPrimaryKey, kCurrent, kNumber } by;
  std::int32_t number = 0;
};

class IsamModel {
 public:
  using Bytes = std::string;
  enum Access { kNothing = 0, kRead = 1, kWrite = 2 };

  // An empty pair without opens. The minimum length is the maximum for fixed length.
  IsamModel(int minimum, int maximum, const std::vector<keydescr>& keys);

  std::int32_t error = 0;   // iserrno
  std::int32_t number = 0;  // isrecnum, length: isreclen; set by the application like these
  std::int32_t length = 0;
  std::string status = "0000";
  std::map<std::int32_t, Bytes> records;

  // `name_error`: 0, ENOENT or ISENAME. `isfd`: the number that a good open got.
  int isopen(int name_error, int mode, int isfd);
  int isclose(int isfd) { return opens_.erase(isfd) == 1 ? end(0) : end(ISENOTOPEN, "9042"); }
  // A call that only looks, or concerns no record: ISEARGUMENT unless it is legal.
  int isother(int isfd, Access access, bool legal = true);
  int isstart(int isfd, keydescr& k, int len, const Bytes& record, int mode);
  int isread(int isfd, Bytes& record, int mode);  // `record` becomes the one read
  // These records have the greatest length; how much of them counts follows from `length`.
  int iswrite(int isfd, Bytes record, bool becomes_current);
  // As many of these as succeed one after another; -1 where the call is refused as a whole.
  int isreadmany(int isfd, std::vector<Bytes>& set, std::vector<std::int32_t>& numbers, int mode);
  int iswritemany(int isfd, const std::vector<Bytes>& set, std::vector<std::int32_t>& numbers,
                  const std::vector<std::int32_t>& lengths);
  int isrewritemany(int isfd, const std::vector<Bytes>& set,
                    const std::vector<std::int32_t>& numbers,
                    const std::vector<std::int32_t>& lengths);
  // A whole bulk load: how many of these are refused, their numbers in `refused`.
  int isload(int isfd, const std::vector<Bytes>& set, std::vector<std::int32_t>& numbers,
             const std::vector<std::int32_t>& lengths, std::vector<std::int32_t>& refused);
  int isrewrite(int isfd, Target target, Bytes record);
  int isdelete(int isfd, Target target, const Bytes& record);
  // A call that told of a failed write, and changed nothing.
  int fails(int reason) { return end(reason); }
  // An iswrite under an exclusive open that failed after it took a number.
  void return_refused();
  [[nodiscard]] bool is_alone() const;  // some open is exclusive
  // Opens that stood on an item which has gone, when one with the same key came. Whether that is
  // the same item, or before or behind it, depends on duplicate numbers, which only the files know.
  // None afterwards.
  std::set<int> take_unsure() { return std::exchange(unsure_, {}); }

 private:
  // A key in a form that sorts by its bytes, and the duplicate number. In the order of record
  // numbers the key is empty and the record number takes the second place.
  using Place = std::pair<Bytes, std::int32_t>;
  using Index = std::map<Place, std::int32_t>;  // to record numbers
  struct Position {
    bool exists = false;
    Place place = {"", INT32_MIN};  // at first before all items
    std::int32_t record = 0;        // 0: beside the items
    bool read = false;              // its record has been read, not only found
    bool deleted = false;           // its record was deleted through this open
  };
  struct Open {
    int mode = 0;
    std::size_t key = 1;
    Position position = {};
  };
  struct Found {
    int error;
    Index::const_iterator entry;
  };

  int end(int reason, const char* how = nullptr);
  Open* enter(int isfd, Access access, const char* refusal);
  bool by_number(const Open& open) const { return keys_[open.key].nparts == 0; }
  Found find(const Open& open, const Bytes& record, int len, int mode) const;
  bool is_there(const Open& open) const;
  void stand_on(Open& open, const Place& place, std::int32_t recnum, bool read);
  Found move(const Open& open, int mode) const;
  bool cut(Bytes& record);
  bool is_refused(const Bytes& record, std::int32_t recnum) const;
  Place insert(std::size_t index, const Bytes& record, std::int32_t recnum);
  void add(Open& open, Bytes record, std::int32_t recnum, bool becomes_current);
  void remove(std::size_t index, const Bytes& record, std::int32_t recnum);
  void free_number(std::int32_t recnum);
  std::int32_t record_of(const Open& open, Target target, const Bytes& record);

  int minimum_;
  int maximum_;
  std::vector<keydescr> keys_{1};  // [0]: the order of record numbers, [n]: index n
  std::vector<Index> indexes_;
  std::vector<std::int32_t> free_;  // in the order in which they were freed
  std::int32_t last_ = 0;           // highest number in use
  std::map<int, Open> opens_;
  std::set<int> unsure_;
  bool after_end_ = false;  // the call before ended with ISEEND
};

}  // namespace testing_support
