// entry: what programs report of a pair, before it becomes text or JSON, and how bad it is.
//
// `kestro` (KESTRO_REPORT) and `zentra` make their entries here, so that both tell the same.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "checker/findings.h"
#include "checker/status.h"

namespace checker {

// The version of what stands in JSON.
inline constexpr int kSchema = 1;

// Bytes of a file: a name, a key. `shown`: how they are told to people, if not as text.
struct FileBytes {
  std::string bytes;
  std::string shown{};
};
using Value = std::variant<std::int64_t, double, bool, FileBytes, std::string>;
using Fields = std::vector<std::pair<const char*, Value>>;

struct Entry {
  enum class Kind {
    kFinding,  // damage
    kDetail,   // one of those that a finding counts
    kNote,     // what is no damage
    kStep      // what a repair is to do
  };

  Kind kind = Kind::kFinding;
  std::string code{};
  Status status = Status::kSound;
  int key = 0;  // number of the index that it is about
  std::string text{};
  Fields fields{};
};

[[nodiscard]] const char* name_of(Entry::Kind kind);

// How bad it is that a check has found this.
[[nodiscard]] Status weight_of(Code code);
// What kestro prints of it, with the words that its report has in the line before.
[[nodiscard]] std::string wording_of(Code code);
// An error of the library or of the system.
[[nodiscard]] std::string error_text(std::int32_t code);

[[nodiscard]] Entry entry_of(const Finding& finding);
// Why the dictionary of the current pair could not be read, by the library's error.
[[nodiscard]] std::string dictionary_error_text(std::int32_t code);
// Of an error that a check has met on its way: iserrno and iserrio.
[[nodiscard]] Entry entry_of_failure(std::int32_t code, std::int32_t place);

// What several pairs have come to.
class Tally {
 public:
  void add(Status status, std::int64_t findings);
  [[nodiscard]] Status worst() const { return worst_; }
  // `good`: the verdict of status 0.
  [[nodiscard]] Fields fields(const char* good = kVerdictSound) const;

 private:
  Status worst_ = Status::kSound;
  std::int64_t findings_ = 0;
  std::array<std::int64_t, kStatuses> counts_{};
};

}  // namespace checker
