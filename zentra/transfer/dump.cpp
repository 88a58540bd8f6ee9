#include "zentra/transfer/dump.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/keys/keys.h"
#include "locale/collation.h"
#include "zentra/pair/treewalk.h"
#include "zentra/report/text.h"
#include "zentra/transfer/freenumbers.h"
#include "zentra/transfer/inorder.h"

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

// Records and their text.
struct Dump::Piece {
  Records::Batch records{};
  std::vector<char> text{};
  std::size_t size = 0;  // of the text
};

void Dump::note(const Record& record) {
  accounted_.set_bit(record.number);
  ++count_;
  if (record.number > records_.highest()) ++beyond_;
}

void Dump::put(const Record& record) {
  note(record);
  output_.put_until(writer_.put(record, output_.room(writer_.room(record))));
}

bool Dump::take(Piece& piece) {
  if (!records_.next(piece.records, accounted_)) return false;
  for (const Record& record : piece.records.records()) note(record);
  return true;
}

void Dump::put_text(Piece& piece) const {
  piece.size = 0;
  for (const Record& record : piece.records.records()) {
    const std::size_t room = writer_.room(record);
    if (piece.text.size() - piece.size < room) piece.text.resize(2 * piece.text.size() + room);
    char* const to = piece.text.data() + piece.size;
    piece.size += static_cast<std::size_t>(writer_.put(record, to) - to);
  }
}

// All that the threads have in common is touched where pieces are taken, and where they are used.
void Dump::put_rest() {
  checker::Progress progress("Dumping", records_.last());
  run_in_order(threads_for(common::file_size(isam::filep->data.fd)), [&] {
    const auto piece = std::make_shared<Piece>();
    return Steps{.take =
                     [&, piece] {
                       const bool has_some = take(*piece);
                       if (has_some) progress.at(piece->records.records().back().number);
                       return has_some;
                     },
                 .work = [this, piece] { put_text(*piece); },
                 .use =
                     [this, piece] {
                       output_.put_much({piece->text.data(), piece->size});
                       return output_.error() == 0;
                     }};
  });
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
