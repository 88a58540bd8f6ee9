#include "zentra/transfer/loading.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "checker/driver.h"
#include "checker/interrupt.h"
#include "checker/jsonline.h"
#include "checker/temporaryfile.h"
#include "common/io.h"
#include "common/number.h"
#include "isam.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "isam/calls/call.h"
#include "zentra/files/textfile.h"
#include "zentra/keys/keysfile.h"
#include "zentra/pair/pairlayout.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;
using Step = Rows::Step;

TextFormat guessed(std::string_view beginning, std::string_view file) {
  if (beginning.starts_with(kRawBegin)) return TextFormat::kRaw;
  if (file.ends_with(".csv")) return TextFormat::kCsv;
  if (beginning.starts_with("\xEF\xBB\xBF")) beginning.remove_prefix(3);
  const std::size_t first = beginning.find_first_not_of(" \t\r\n");
  // CSV has a line with names at least; of no object a text of objects is empty.
  const bool is_json = first == beginning.npos || beginning[first] == '{';
  return is_json ? TextFormat::kJson : TextFormat::kCsv;
}

// {"schema":1,"type":"rejected","line":17,"reason":"...","bytes":{"hex":"...","text":"..."}}
std::string rejected_line(const Rows& rows, const std::string& why) {
  constexpr std::size_t kMostBytes = std::size_t{256} << 10;  // that are told of a row
  const std::string_view text = rows.text();
  checker::JsonLine json;
  json.add("schema", std::int64_t{checker::kSchema}).add("type", std::string("rejected"));
  json.add("line", rows.line()).add("reason", why);
  if (text.size() > kMostBytes) json.add("length", static_cast<std::int64_t>(text.size()));
  json.add("bytes", checker::FileBytes{.bytes = std::string(text.substr(0, kMostBytes))});
  return json.text();
}

// Of a failed call of the library.
Status status_of(std::int32_t code) {
  if (code == isam::kFileInUse) return Status::kInUse;
  const bool is_damage = code == isam::kCorrupted || code == isam::kFormatChange;
  return is_damage ? Status::kNeedsSalvage : Status::kUnfinished;
}

}  // namespace

Loading::Loading(LoadRequest request)
    : request_(std::move(request)),
      rejects_(request_.rejects.empty() ? request_.name + ".rejects.jsonl" : request_.rejects),
      new_pair_(request_.name) {}

Loading::~Loading() {
  if (request_.into && isfd_ >= 0) ::isclose(isfd_);
}

Status Loading::refuse(Status status, std::string why) {
  why_ = std::move(why);
  return status;
}

bool Loading::keeps_numbers() const { return format_ == TextFormat::kRaw && !request_.into; }

Status Loading::run() {
  Status status = open_text();
  if (status == Status::kSound) status = request_.into ? open_old_pair() : find_shape();
  if (status == Status::kSound && !request_.into) status = open_pair();
  return status == Status::kSound ? load() : status;
}

Status Loading::open_text() {
  if (common::name_exists(rejects_.path())) {
    return refuse(Status::kUnfinished,
                  shown(rejects_.path()) + " is there already; --rejects names another file");
  }
  if (!input_.open(request_.file, checker::folder_of(request_.name))) {
    const std::string name = request_.file.empty() ? "standard input" : shown(request_.file);
    return refuse(Status::kUnfinished, fmt::format("{}: {}", name, std::strerror(errno)));
  }
  format_ = request_.format.value_or(guessed(input_.beginning(), request_.file));
  return Status::kSound;
}

std::unique_ptr<Rows> Loading::make_rows() {
  const Lengths lengths{shape_.least, shape_.greatest};
  switch (format_) {
    case TextFormat::kCsv:
      return rows_of_csv(input_, fields_, lengths, request_.unknown);
    case TextFormat::kJson:
      return rows_of_json(input_, fields_, lengths, request_.unknown);
    default:
      return std::make_unique<RawRows>(input_);
  }
}

Status Loading::find_shape() {
  if (format_ == TextFormat::kRaw) return shape_of_text();
  return request_.like.empty() ? shape_by_words() : take_shape_like();
}

Status Loading::shape_of_text() {
  auto rows = std::make_unique<RawRows>(input_);
  if (!rows->begin()) return refuse(Status::kUnfinished, rows->why());
  if (request_.into) {
    rows_ = std::move(rows);
    return Status::kSound;
  }
  shape_ = rows->header();
  orders_.resize(shape_.keys.size() + 1);
  rows->keep_orders(orders_);
  rows_ = std::move(rows);
  return Status::kSound;
}

Status Loading::take_shape_like() {
  std::string base = request_.like;
  checker::cut_suffix(base);
  ReadPair pair;
  LikeShape like = shape_like(pair, base, request_.wait);
  if (!like.shape) return refuse(like.status, like.why);
  shape_ = std::move(*like.shape);
  shape_.unique = 1;
  PairLayout of_pair = layout_of_pair(request_.layout, base);
  if (!of_pair.why.empty()) {
    return refuse(Status::kUnfinished, fmt::format("{}", fmt::join(of_pair.why, "; ")));
  }
  fields_ = std::move(of_pair.fields);
  return Status::kSound;
}

// "50", or "40,500".
Status Loading::find_lengths(bool& has_tail) {
  const std::string& text = request_.length;
  const std::size_t comma = std::min(text.find(','), text.size());
  const auto least = common::number_within(text.substr(0, comma), 1, isam::kMaxRecordLength);
  has_tail = comma < text.size();
  const auto greatest =
      has_tail && least
          ? common::number_within(text.substr(comma + 1), *least + 1, isam::kMaxRecordLength)
          : least;
  if (!least || !greatest) {
    return refuse(Status::kUnfinished,
                  fmt::format("no length of records from 1 to {}: {}; one of variable length has "
                              "two, LEAST,GREATEST",
                              isam::kMaxRecordLength, shown(text)));
  }
  shape_.least = static_cast<int>(*least);
  shape_.greatest = static_cast<int>(*greatest);
  return Status::kSound;
}

Status Loading::take_layout(const std::string& file, bool has_tail) {
  PairLayout read = read_layout(file, shape_.least, has_tail);
  if (!read.why.empty()) {
    return refuse(Status::kUnfinished, fmt::format("{}", fmt::join(read.why, "; ")));
  }
  fields_ = std::move(read.fields);
  return Status::kSound;
}

Status Loading::shape_by_words() {
  for (const std::string& word : request_.keys) {
    const KeyOfLine read = key_of_line(word);
    if (!read.why.empty()) {
      return refuse(Status::kUnfinished, fmt::format("--key {}: {}", shown(word), read.why));
    }
    shape_.keys.push_back(read.key);
  }
  bool has_tail = false;
  if (request_.length.empty() && !request_.layout.empty()) {
    // As long as its fields.
    const auto text = contents_of(request_.layout, layout::kGreatestText);
    int end = 0;
    if (text) {
      for (const layout::Field& field : layout::read(*text).fields)
        end = std::max(end, field.end());
    }
    request_.length = std::to_string(std::max(end, 1));
  }
  const Status status = find_lengths(has_tail);
  if (status != Status::kSound || request_.layout.empty()) return status;
  return take_layout(request_.layout, has_tail);
}

Status Loading::open_pair() {
  const std::string fault = shape_fault(shape_);
  if (!fault.empty()) return refuse(Status::kUnfinished, fault);
  if (!new_pair_.make(shape_)) return refuse(Status::kUnfinished, new_pair_.why());
  isfd_ = new_pair_.handle();
  return Status::kSound;
}

Status Loading::open_old_pair() {
  constexpr int kHow = ISINOUT + ISEXCLLOCK + ISANYLENGTH;
  constexpr auto kPause = std::chrono::milliseconds(50);
  const auto until = steady_clock::now() + request_.wait;
  while ((isfd_ = ::isopen(request_.name.c_str(), kHow)) < 0) {
    if (iserrno != isam::kFileInUse || steady_clock::now() >= until) {
      const Status status = status_of(iserrno);
      return refuse(status, ::isexplain());
    }
    show_progress("Waiting for the lock", 0, 0, 0);
    std::this_thread::sleep_for(kPause);
  }
  isam::Call call{isfd_, {.access = isam::Access::kToRead}};
  auto shape = call ? shape_of_pair() : std::nullopt;
  if (!shape) return refuse(Status::kNeedsSalvage, "its key descriptions cannot be read");
  shape_ = std::move(*shape);
  if (format_ == TextFormat::kRaw) return shape_of_text();
  PairLayout of_pair = layout_of_pair(request_.layout, request_.name);
  if (!of_pair.why.empty()) {
    return refuse(Status::kUnfinished, fmt::format("{}", fmt::join(of_pair.why, "; ")));
  }
  fields_ = std::move(of_pair.fields);
  return call.end() == 0 ? Status::kSound : refuse(status_of(iserrno), ::isexplain());
}

Status Loading::load() {
  Loader loader{isfd_, shape_,
                keeps_numbers() ? Loader::Numbers::kKept : Loader::Numbers::kFollowing};
  if (!loader.begin()) return refuse(status_of(loader.code()), loader.why());
  if (rows_ == nullptr) rows_ = make_rows();
  Status status = load_rows(loader);
  if (!rows_->note().empty()) notes_.push_back(rows_->note());
  if (status == Status::kDamaged) return stop();
  if (status != Status::kSound) return status;
  if (!loader.finish()) return refuse(status_of(loader.code()), loader.why());
  duplicates_ = std::ssize(loader.refused());
  loaded_ = loader.added() - duplicates_;
  status = duplicates_ > 0 ? tell_duplicates(loader) : Status::kSound;
  return status == Status::kSound ? complete() : status;
}

// A kind of the input's end, or of what was added to the rejects.
Status Loading::load_rows(Loader& loader) {
  constexpr std::int64_t kBetweenLooks = 4096;
  const auto start = steady_clock::now();
  for (std::int64_t met = 0;; ++met) {
    if (met % kBetweenLooks == 0) {
      const std::chrono::duration<double> so_far = steady_clock::now() - start;
      show_progress("Loading", input_.taken(), input_.size(), so_far.count());
    }
    Status status = Status::kSound;
    switch (rows_->next()) {
      case Step::kRecord:
        status = take_row(loader);
        break;
      case Step::kBad:
        status = reject(rows_->why());
        break;
      case Step::kEnd:
        return rows_->why().empty() ? Status::kSound : refuse(Status::kUnfinished, rows_->why());
      case Step::kFailed:
        return refuse(Status::kUnfinished, rows_->why());
    }
    if (status != Status::kSound) return status;
  }
}

Status Loading::take_row(Loader& loader) {
  const std::size_t size = rows_->bytes().size();
  const bool fits = size >= static_cast<std::size_t>(shape_.least) &&
                    size <= static_cast<std::size_t>(shape_.greatest);
  if (!fits) return reject(fmt::format("{} bytes do not fit records of the pair", size));
  if (loader.add(rows_->bytes(), rows_->number())) return Status::kSound;
  return refuse(status_of(loader.code()), fmt::format("line {}: {}", rows_->line(), loader.why()));
}

Status Loading::reject(const std::string& why) {
  if (!why.empty()) ++bad_;
  if (why.empty() || !rejects_.add(rejected_line(*rows_, why))) {
    return refuse(Status::kUnfinished,
                  fmt::format("{}: {}", shown(rejects_.path()), std::strerror(errno)));
  }
  if (!request_.stops) return Status::kSound;
  return refuse(Status::kDamaged, fmt::format("line {}: {}", rows_->line(), why));
}

// At a line that was refused: the rejects tell it.
Status Loading::stop() {
  if (!rejects_.sync()) return reject("");
  rejects_.keep();
  return Status::kDamaged;
}

// The text is read once more, as far as the last of them.
Status Loading::tell_duplicates(const Loader& loader) {
  if (input_.again() != 0) return refuse(Status::kUnfinished, std::strerror(errno));
  if (format_ == TextFormat::kRaw) {
    auto rows = std::make_unique<RawRows>(input_);
    static_cast<void>(rows->begin());
    rows_ = std::move(rows);
  } else {
    rows_ = make_rows();
  }
  const std::int64_t bad = bad_;
  std::int64_t place = 0;
  auto left = loader.refused();
  for (Step step = rows_->next(); !left.empty() && step <= Step::kBad; step = rows_->next()) {
    if (step == Step::kBad) continue;
    const bool fits = rows_->bytes().size() <= static_cast<std::size_t>(shape_.greatest);
    if (!fits || rows_->bytes().size() < static_cast<std::size_t>(shape_.least)) continue;
    const std::int64_t number = keeps_numbers() ? rows_->number() : loader.first_number() + place;
    ++place;
    if (number != left.front()) continue;
    left = left.subspan(1);
    const std::string why = reason_of_duplicate(rows_->bytes());
    if (!rejects_.add(rejected_line(*rows_, why))) return reject("");
    if (request_.stops && !request_.into) {
      refuse(Status::kDamaged, fmt::format("line {}: {}", rows_->line(), why));
      return stop();
    }
  }
  bad_ = bad;
  if (!left.empty()) {
    notes_.push_back(fmt::format("the text has changed meanwhile: {} duplicates are not told",
                                 grouped(std::ssize(left))));
  }
  return Status::kSound;
}

std::string Loading::reason_of_duplicate(isam::ConstBytes bytes) const {
  std::vector<char> record(static_cast<std::size_t>(shape_.greatest) + 1);
  std::ranges::copy(bytes, record.begin());
  for (std::size_t i = 0; i < shape_.keys.size(); ++i) {
    keydescr k = shape_.keys[i];
    if (k.nparts == 0 || (k.flags & KF_DUPS) != 0) continue;
    if (::isstart(isfd_, &k, 0, record.data(), RD_EQUAL) != 0) continue;
    return fmt::format("record {} has its key in index {}", ::isrecnum, i + 1);
  }
  return "an index has as many records with its key as it may have";
}

Status Loading::order_equals() {
  for (std::size_t n = 1; n < orders_.size(); ++n) {
    if (orders_[n].empty()) continue;
    const PutLast put = put_last(isfd_, static_cast<int>(n), orders_[n]);
    if (put.code != 0) return refuse(status_of(put.code), error_text(put.code));
    if (!put.is_whole) {
      notes_.push_back(fmt::format("index {}: equal keys could not all get their order", n));
    }
  }
  return Status::kSound;
}

Status Loading::complete() {
  const Status status = order_equals();
  if (status != Status::kSound) return status;
  if (!rejects_.sync()) return reject("");
  if (request_.into) {
    if (::isclose(std::exchange(isfd_, -1)) != 0) {
      return refuse(status_of(iserrno), ::isexplain());
    }
    rejects_.keep();
  } else {
    const checker::SignalBlock block;  // the pair and its rejects stay together
    if (!new_pair_.publish()) return refuse(Status::kUnfinished, new_pair_.why());
    checker::Interrupt::say("\ninterrupted; the pair is made\n");
    rejects_.keep();
  }
  return bad_ + duplicates_ > 0 ? Status::kDamaged : Status::kSound;
}

}  // namespace zentra
