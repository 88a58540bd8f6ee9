// open: an open pair, with the calls for single records.
//
// Records are bytes of at most the record length. Indexes are numbered from 1; 0 is the order of
// record numbers, in which a number tells the record. What there is not is std::nullopt; any other
// failure throws Failed.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "guard.h"
#include "isam.h"

namespace zentra_module {

struct Record {
  std::int32_t number;
  std::string bytes;
};

// Parts: start, length, type.
struct KeyOf {
  int flags;
  std::vector<std::tuple<int, int, int>> parts;
};

class Open {
 public:
  // Opens a pair of records of fixed or of variable length.
  Open(std::string name, int mode);
  // Makes a pair; `least` is the least record length, equal to `length` where it is fixed.
  [[nodiscard]] static Open build(std::string name, int least, int length, const KeyOf& key,
                                  int mode);
  Open(const Open&) = delete;
  Open& operator=(const Open&) = delete;
  Open(Open&& other) noexcept;
  Open& operator=(Open&&) = delete;
  ~Open();

  void close();
  [[nodiscard]] bool is_closed() const { return isfd_ < 0; }

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] int length() const { return length_; }
  [[nodiscard]] int least() const { return least_; }
  [[nodiscard]] bool is_variable() const { return variable_; }
  [[nodiscard]] const std::vector<KeyOf>& keys() const { return keys_; }
  [[nodiscard]] int count();
  // Raised by each change of whatever process (isstamp).
  [[nodiscard]] std::uint32_t stamp();

  // Stands before the first record that `mode` (RD_...) asks for: whether there is one. `length`:
  // so many bytes of the key count, 0 for all.
  bool start(int index, int mode, std::string_view record, int length, std::int32_t number);
  // The record that `mode` asks for in the order of an index; where it differs from the last one's
  // the open comes to stand before the first record.
  std::optional<Record> read(int index, int mode, std::string_view record, std::int32_t number);
  // Up to `count` of the records that are next, by RD_NEXT or RD_PREV; fewer at the end, or before
  // one that cannot be read.
  std::vector<Record> read_many(int mode, int count);
  // The same with room of the caller's; how many. Not by itself in turn.
  int read_into(recordset& set, int mode);

  std::int32_t write(std::string_view record);
  // By the primary key, or by its number if that is not 0. False when there is no such record.
  bool rewrite(std::string_view record, std::int32_t number);
  bool remove(std::string_view record, std::int32_t number);

  // Releases the lock of one record.
  void release(std::int32_t number);
  // False when another process has a lock in the file.
  bool lock_file();
  void unlock_file();
  void flush();

  void add_index(const KeyOf& key);
  void drop_index(int index);

  void load_begin();
  // Takes records of equal or, with lengths, of different lengths; how many.
  void load(char* records, std::size_t size, std::int32_t* lengths, std::int32_t count);
  // How many were refused, and the numbers of the first of them.
  std::pair<int, std::vector<std::int32_t>> load_end(int room);
  void load_drop();

  // For calls made elsewhere, in turn: the open's number. Throws when it is closed or inherited.
  [[nodiscard]] int number() const;

 private:
  Open(std::string name, int isfd, bool variable);

  void learn();
  [[nodiscard]] char* room_for(std::string_view record);
  void expect(int result) const;
  keydescr* key_of(int index);
  void go_to(int index);

  std::string name_;
  int isfd_;
  int generation_;
  bool variable_ = false;
  int length_ = 0;
  int least_ = 0;
  int current_ = 1;  // index
  std::vector<KeyOf> keys_;
  std::vector<keydescr> descriptions_;  // that of no parts first
  std::vector<char> room_;              // for a record
};

}  // namespace zentra_module
