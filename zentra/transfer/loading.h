// loading: one run of `zentra load`, from its text to the pair.
//
//   the text -> rows -> a bulk load -> who was refused, by a second reading of the text -> the pair
//
// Keeps   a new pair gets its name when it is complete; one that there was is as it was unless all
//         went well
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "layout/layout.h"
#include "zentra/files/input.h"
#include "zentra/files/linefile.h"
#include "zentra/newpair/loader.h"
#include "zentra/newpair/newpair.h"
#include "zentra/report/status.h"
#include "zentra/transfer/rows.h"

namespace zentra {

enum class TextFormat : std::uint8_t { kJson, kCsv, kRaw };

struct LoadRequest {
  std::string name;  // of the pair
  std::string file{};
  std::optional<TextFormat> format{};
  std::string like{};
  std::vector<std::string> keys{};
  std::string length{};
  std::string layout{};
  std::string rejects{};
  bool into = false;
  bool stops = false;
  Unknown unknown = Unknown::kRefused;
  std::chrono::milliseconds wait{};
};

class Loading {
 public:
  explicit Loading(LoadRequest request);
  ~Loading();
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;

  // kDamaged: something was refused.
  [[nodiscard]] Status run();

  // Records that the pair has got.
  [[nodiscard]] std::int64_t loaded() const { return loaded_; }
  [[nodiscard]] std::int64_t bad() const { return bad_; }
  [[nodiscard]] std::int64_t duplicates() const { return duplicates_; }
  [[nodiscard]] const LineFile& rejects() const { return rejects_; }
  // Why nothing was loaded; empty when it was.
  [[nodiscard]] const std::string& why() const { return why_; }
  [[nodiscard]] const std::vector<std::string>& notes() const { return notes_; }

 private:
  Status refuse(Status status, std::string why);
  [[nodiscard]] Status open_text();
  [[nodiscard]] Status find_shape();
  [[nodiscard]] Status shape_of_text();
  [[nodiscard]] Status take_shape_like();
  [[nodiscard]] Status shape_by_words();
  [[nodiscard]] Status find_lengths(bool& has_tail);
  [[nodiscard]] Status take_layout(const std::string& file, bool has_tail);
  [[nodiscard]] Status open_pair();
  [[nodiscard]] Status open_old_pair();
  [[nodiscard]] Status load();
  [[nodiscard]] Status load_rows(Loader& loader);
  [[nodiscard]] Status take_row(Loader& loader);
  [[nodiscard]] Status tell_duplicates(const Loader& loader);
  [[nodiscard]] std::string reason_of_duplicate(isam::ConstBytes bytes) const;
  [[nodiscard]] Status order_equals();
  [[nodiscard]] Status reject(const std::string& why);
  [[nodiscard]] Status stop();
  [[nodiscard]] Status complete();
  [[nodiscard]] std::unique_ptr<Rows> make_rows();
  [[nodiscard]] bool keeps_numbers() const;

  LoadRequest request_;
  LineFile rejects_;
  Input input_;
  TextFormat format_ = TextFormat::kJson;
  PairShape shape_;
  layout::Fields fields_;
  std::unique_ptr<Rows> rows_;
  RawRows::Orders orders_;
  NewPair new_pair_;
  int isfd_ = -1;
  std::int64_t loaded_ = 0;
  std::int64_t bad_ = 0;
  std::int64_t duplicates_ = 0;
  std::string why_;
  std::vector<std::string> notes_;
};

}  // namespace zentra
