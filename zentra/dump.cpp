#include "zentra/dump.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "checker/progress.h"
#include "isam/base/current.h"
#include "isam/keys/keys.h"
#include "locale/collation.h"
#include "zentra/freenumbers.h"
#include "zentra/text.h"
#include "zentra/treewalk.h"

namespace zentra {
namespace {

// Whether keys can be compared as the index has them: in the order of a locale only where it is the
// client's, which is loaded for that.
bool knows_order_of(const keydescr& k) {
  if (!isam::kynchar(k)) return true;
  const char* const name = isam::dictp->d_collname();
  const std::string_view stored{name, ::strnlen(name, isam::kCollationNameSize)};
  const bool is_loaded = locale::chkulxinit() == 0;
  return is_loaded && stored.substr(0, stored.find(' ')) == locale::file_system_name();
}

}  // namespace

// Hears the items of an index, and writes the record of each.
class Dump::ByIndex : public checker::Listener {
 public:
  explicit ByIndex(Dump& dump) : dump_(dump) {}

  void found(const checker::Finding& /*finding*/) override {}
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t /*code*/, std::int32_t /*place*/) override {}
  [[nodiscard]] bool wants_leaves() const override { return true; }
  void leaf_item(const Leaf& /*place*/, const isam::Item& item) override {
    Record record;
    const std::int32_t number = item.recptr;
    const bool is_new = number <= dump_.records_.last() && !dump_.accounted_.tstbit(number);
    if (is_new && dump_.records_.find(number, record)) {
      dump_.put(record);
    } else {
      ++astray_;
    }
  }
  // Items that lead to no record.
  [[nodiscard]] std::int64_t astray() const { return astray_; }

 private:
  Dump& dump_;
  std::int64_t astray_ = 0;
};

Dump::Dump(Output& output, DumpWriter& writer, Tell tell)
    : output_(output),
      writer_(writer),
      tell_(std::move(tell)),
      records_([this](std::int32_t number, Records::Fault what) { fault(number, what); }) {
  accounted_.reset(records_.last());
}

void Dump::put(const Record& record) {
  accounted_.set_bit(record.number);
  ++count_;
  if (record.number > records_.highest()) ++beyond_;
  writer_.record(output_, record);
}

void Dump::put_rest() {
  checker::Progress progress("Dumping", records_.last());
  Record record;
  while (output_.error() == 0 && records_.next(record, &accounted_)) {
    progress.at(record.number);
    put(record);
  }
}

void Dump::run() {
  writer_.begin(output_);
  put_rest();
  if (output_.error() == 0) tell_gaps();
  writer_.end(output_, count_);
}

void Dump::run_by(int n, const keydescr& k) {
  writer_.begin(output_);
  ByIndex order{*this};
  const bool knows_order = knows_order_of(k);
  const auto found = walk_tree(order, n, k);
  const std::int64_t by_index = count_;
  put_rest();
  const std::int64_t others = count_ - by_index;
  const bool is_damaged = !found || found->badindx + found->dupindx + found->baddata > 0 ||
                          found->dupdata > 0 || (found->badorder && knows_order) || found->badindex;
  if (is_damaged || order.astray() > 0 || others > 0) {
    finding("dump.order", n,
            fmt::format("damaged: {} record(s) that it does not lead to stand behind all others",
                        grouped(others)),
            {{"found", others}});
  }
  if (output_.error() == 0) tell_gaps();
  writer_.end(output_, count_);
}

void Dump::fault(std::int32_t number, Records::Fault fault) {
  if (fault == Records::Fault::kUnreadable) {
    accounted_.set_bit(number);
    tell_left_out("dump.unreadable", "cannot be read, and is left out", number, number);
  } else {
    tell_left_out("dump.tail-lost", "its variable part cannot be read, and is left out", number,
                  number);
  }
}

void Dump::tell_left_out(const char* code, const char* text, std::int32_t first,
                         std::int32_t last) {
  is_whole_ = false;
  left_out_ += std::int64_t{last} - first + 1;
  Fields fields{{"record", std::int64_t{first}}};
  if (last != first) fields.emplace_back("to", std::int64_t{last});
  tell_({.kind = Entry::Kind::kDetail,
         .code = code,
         .status = Status::kNeedsSalvage,
         .text = text,
         .fields = std::move(fields)});
}

void Dump::finding(const char* code, int index, std::string text, Fields fields) {
  is_whole_ = false;
  tell_({.code = code,
         .status = Status::kNeedsSalvage,
         .key = index,
         .text = std::move(text),
         .fields = std::move(fields)});
}

// What the end of the data file and the dictionary do not agree about.
void Dump::tell_end() {
  const std::int64_t last = records_.last();
  const std::int64_t highest = records_.highest();
  if (last < highest) {
    left_out_ += highest - last;
    finding(
        "dump.data-ends", 0,
        fmt::format("the data file ends behind record {} of {}", grouped(last), grouped(highest)),
        {{"record", last}, {"of", highest}});
  }
  if (beyond_ > 0) {
    finding("dump.beyond", 0,
            fmt::format("{} record(s) lie behind number {}, the last that the dictionary knows",
                        grouped(beyond_), grouped(highest)),
            {{"found", beyond_}, {"record", highest}});
  }
}

void Dump::tell_gaps() {
  tell_end();
  const std::int32_t last = std::min(records_.last(), records_.highest());
  if (count_ - beyond_ == last) return;
  if (!account_for_free(accounted_, last)) {
    finding("dump.free-unknown", 0,
            "the list of free records is damaged: deleted records cannot be told from lost ones",
            {});
    return;
  }
  tell_missing(accounted_, last, [this](std::int32_t first, std::int32_t end) {
    tell_left_out("dump.lost", "neither present nor free, and left out", first, end);
  });
}

}  // namespace zentra
