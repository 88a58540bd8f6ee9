// loader: records into a pair by a bulk load, each with the number that it had where that is asked
// for.
//
//   Loader loader{isfd, shape, Loader::Numbers::kKept};
//   if (!loader.begin()) return failed(loader.why());
//   while (...) if (!loader.add(bytes, number)) return failed(loader.why());
//   if (!loader.finish()) return failed(loader.why());
//   loader.refused()                                  // by their places among those added, from 0
//
// Needs   an exclusive open that nothing else is done with; numbers that ascend
// Keeps   until finish() the pair is as it was
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "isam/base/format.h"
#include "zentra/pair/pairshape.h"

namespace zentra {

class Loader {
 public:
  enum class Numbers : std::uint8_t { kFollowing, kKept };

  Loader(int isfd, const PairShape& shape, Numbers numbers);

  [[nodiscard]] bool begin();
  // `number`: that the record is to have, 0 for the next one.
  [[nodiscard]] bool add(isam::ConstBytes bytes, std::int32_t number);
  [[nodiscard]] bool finish();

  // How many were added, refused ones too.
  [[nodiscard]] std::int64_t added() const { return added_; }
  // The numbers of those that have a key of another in an index without duplicates, ascending.
  [[nodiscard]] std::span<const std::int32_t> refused() const {
    return {refused_.get(), refused_count_};
  }
  // The number that the record at a place among those added got, or was to get.
  [[nodiscard]] std::int32_t first_number() const { return first_; }

  [[nodiscard]] std::int32_t code() const { return code_; }  // as iserrno
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  bool fail();
  [[nodiscard]] bool flush();
  [[nodiscard]] bool leave_gap(std::int32_t number);

  int isfd_;
  bool is_variable_;
  Numbers numbers_;
  std::size_t room_;  // of a record
  std::vector<char> records_;
  std::vector<std::int32_t> given_;
  std::vector<std::int32_t> lengths_;
  std::size_t count_ = 0;  // in records_
  std::int64_t added_ = 0;
  std::int32_t first_ = 0;
  std::int64_t next_ = 1;  // number, where they are kept
  std::int64_t gaps_ = 0;
  std::unique_ptr<std::int32_t[]> refused_;
  std::size_t refused_count_ = 0;
  std::int32_t code_ = 0;
  std::string why_;
};

// Of the records, which the pair has by these numbers, each in turn becomes the last of those that
// have its key in index n; what is not there is passed over. False: not all could, since equal keys
// have no more numbers, or code tells, as iserrno.
struct PutLast {
  bool is_whole = false;
  std::int32_t code = 0;
};
[[nodiscard]] PutLast put_last(int isfd, int n, std::span<const std::int32_t> records);

}  // namespace zentra
