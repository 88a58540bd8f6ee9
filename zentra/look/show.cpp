// zentra show: the bytes of a record, a node, the dictionary or the items of a key, each named.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "checker/driver.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "zentra/check/collector.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/look/decode.h"
#include "zentra/look/keyvalue.h"
#include "zentra/pair/readpair.h"
#include "zentra/pair/treewalk.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::filep;

struct ShowOptions {
  bool json = false;
  double wait = 10;
  std::string name;
  std::string what;
  std::vector<std::string> which;
};

// Why nothing can be shown.
struct Refusal {
  Status status = Status::kUnfinished;
  std::string why;
};
using Refused = std::optional<Refusal>;

void note(Report& report, const char* code, std::string text, Fields fields) {
  report.entry({.kind = Entry::Kind::kNote,
                .code = code,
                .text = std::move(text),
                .fields = std::move(fields)});
}

// One line for 16 bytes, with the name in the first.
void tell(Report& report, isam::ConstBytes bytes, const std::vector<Piece>& pieces) {
  constexpr std::size_t kInLine = 16;
  for (const Piece& piece : pieces) {
    const isam::ConstBytes all = bytes.subspan(piece.offset, piece.length);
    std::string text;
    const bool alike = all.size() > kInLine &&
                       std::ranges::all_of(all, [&](isam::Byte byte) { return byte == all[0]; });
    if (alike) {
      text = fmt::format("{:5}  {:<32}  {}", piece.offset,
                         fmt::format("{} times {}", all.size(), hex(as_text(all.first(1)))),
                         piece.name);
    }
    for (std::size_t at = 0; !alike && at < all.size(); at += kInLine) {
      const isam::ConstBytes line = all.subspan(at, std::min(kInLine, all.size() - at));
      text += at == 0 ? fmt::format("{:5}  {:<32}  {}{}{}", piece.offset, hex(as_text(line)),
                                    piece.name, piece.value.empty() ? "" : ": ", piece.value)
                      : fmt::format("\n  {:5}  {}", piece.offset + at, hex(as_text(line)));
    }
    note(report, "bytes", std::move(text),
         {{"offset", static_cast<std::int64_t>(piece.offset)},
          {"name", piece.name},
          {"bytes", FileBytes{.bytes = std::string(as_text(all))}},
          {"value", piece.value}});
  }
}

std::optional<std::int64_t> number_in(const std::string& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return {};
  return number;
}

// Reads up to `to.size()` bytes; what the file does not have is left out.
isam::Bytes read(int fd, isam::Bytes to, std::int64_t offset) {
  const ssize_t got = common::read_at(fd, to, offset);
  return to.first(got < 0 ? 0 : static_cast<std::size_t>(got));
}

Refused show_dictionary(Report& report) {
  std::vector<isam::Byte> bytes(isam::kMarkOffset + isam::kMarkSize);
  const isam::Bytes got = read(filep->index.fd, bytes, 0);
  tell(report, got, decode_dictionary(got));
  return {};
}

Refused show_record(Report& report, std::int64_t number) {
  if (number < 1 || number > INT32_MAX) return Refusal{Status::kUnfinished, "no record number"};
  const auto record = static_cast<std::int32_t>(number);
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(isam::slot_size()));
  const std::int64_t offset = (number - 1) * isam::slot_size();
  const isam::Bytes slot = read(filep->data.fd, bytes, offset);
  if (slot.empty()) return Refusal{Status::kUnfinished, "the data file has no such record"};
  note(report, "record", fmt::format("record {}, at byte {} of the data file", record, offset),
       {{"record", number}, {"at", offset}});
  tell(report, slot, decode_record(slot, indexes_of_pair()));
  return {};
}

// Looks for a node in the trees.
class Finder : public checker::Listener {
 public:
  explicit Finder(std::int32_t node) : wanted_(node) {}
  void found(const checker::Finding& /*finding*/) override {}
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t /*code*/, std::int32_t /*place*/) override {}
  [[nodiscard]] bool wants_trees() const override { return true; }
  void tree_node(int /*level*/, std::int32_t node, int /*used*/) override {
    if (node == wanted_) has_met_ = true;
  }
  [[nodiscard]] bool has_met() const { return has_met_; }

 private:
  std::int32_t wanted_;
  bool has_met_ = false;
};

// Tells every item of an index with a key.
class KeyFinder : public checker::Listener {
 public:
  KeyFinder(Report& report, const keydescr& k, std::string wanted)
      : report_(report), key_(k), wanted_(std::move(wanted)) {}
  void found(const checker::Finding& /*finding*/) override {}
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t /*code*/, std::int32_t /*place*/) override {}
  [[nodiscard]] bool wants_leaves() const override { return true; }
  void leaf_item(const Leaf& place, const isam::Item& item) override {
    tell(place.node, place.slot, item.recptr, item.key, item.dupnm);
  }
  [[nodiscard]] bool wants_details() const override { return true; }
  void detail(const checker::Detail& detail) override {
    const bool leads = detail.code == checker::Code::kIndexRecordBad ||
                       detail.code == checker::Code::kIndexRecordDuplicate;
    if (leads) tell(detail.node, detail.slot, detail.record, detail.value, {});
  }
  [[nodiscard]] int count() const { return count_; }

 private:
  void tell(std::int32_t node, int slot, std::int32_t record, const isam::Byte* value,
            std::optional<std::int32_t> number) {
    const std::string key{as_text({value, static_cast<std::size_t>(key_.keylen)})};
    if (!key.starts_with(wanted_)) return;
    ++count_;
    Fields fields{{"key", key_value(key_, value)},
                  {"record", std::int64_t{record}},
                  {"node", std::int64_t{node}},
                  {"slot", std::int64_t{slot}}};
    std::string text =
        fmt::format("{}: record {}, node {}, slot {}", shown_key(key_, key), record, node, slot);
    if (number && (key_.flags & KF_DUPS) != 0) {
      fields.emplace_back("duplicate", std::int64_t{*number});
      text += fmt::format(", duplicate {}", *number);
    }
    note(report_, "item", std::move(text), std::move(fields));
  }

  Report& report_;
  const keydescr& key_;
  std::string wanted_;
  int count_ = 0;
};

Refused show_node(Report& report, std::int64_t number) {
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(isam::node_size()));
  const std::int64_t offset = (number - 1) * isam::node_size();
  const bool is_there = number >= 1 && number <= INT32_MAX &&
                        read(filep->index.fd, bytes, offset).size() == bytes.size();
  if (!is_there) return Refusal{Status::kUnfinished, "the index file has no such node"};
  const auto node = static_cast<std::int32_t>(number);
  const NodeKind kind = kind_of(node, bytes);
  const std::vector<keydescr> indexes = indexes_of_pair();
  const keydescr* index = nullptr;
  std::string where;
  for (std::size_t n = 0; kind == NodeKind::kTree && index == nullptr && n < indexes.size(); ++n) {
    Finder finder{node};
    if (indexes[n].nparts == 0 || !walk_tree(finder, static_cast<int>(n) + 1, indexes[n])) continue;
    if (!finder.has_met()) continue;
    index = &indexes[n];
    where = fmt::format(" of index {}", n + 1);
  }
  if (kind == NodeKind::kTree && index == nullptr) where = " of no index";
  note(report, "node",
       fmt::format("node {}, at byte {} of the index file: {}{}", node, offset, name_of(kind),
                   where),
       {{"node", number}, {"at", offset}, {"kind", std::string(name_of(kind))}});
  tell(report, bytes, decode_node(kind, bytes, index));
  return {};
}

Refused show_key(Report& report, std::int64_t index, const std::string& value) {
  const std::vector<keydescr> indexes = indexes_of_pair();
  if (index < 1 || index > std::ssize(indexes) ||
      indexes[static_cast<std::size_t>(index - 1)].nparts == 0) {
    return Refusal{Status::kUnfinished, "there is no such index with parts"};
  }
  const keydescr& k = indexes[static_cast<std::size_t>(index - 1)];
  const auto wanted = key_from_text(k, value);
  if (!wanted) return Refusal{Status::kUnfinished, "this is no value of that key"};
  KeyFinder finder{report, k, *wanted};
  if (!walk_tree(finder, static_cast<int>(index), k)) {
    return Refusal{Status::kNeedsSalvage, "the trees cannot be found"};
  }
  if (finder.count() == 0) note(report, "item", "no item has this key", {});
  return {};
}

Refused show(const ShowOptions& options, Report& report) {
  if (options.what == "dictionary") return show_dictionary(report);
  const std::optional<std::int64_t> number = number_in(options.which.front());
  if (!number) return Refusal{Status::kUnfinished, "this is no number"};
  if (options.what == "record") return show_record(report, *number);
  if (options.what == "node") return show_node(report, *number);
  return show_key(report, *number, options.which[1]);
}

Outcome show_pair(const ShowOptions& options, const std::string& name, Report& report) {
  ReadPair pair;
  const bool open = pair.open(name, as_time(options.wait), ReadPair::Look::kLittle) &&
                    (options.what == "dictionary" || (pair.load() && pair.take_geometry()));
  Refused refused;
  if (!open) {
    refused = Refusal{pair.status(), pair.why()};
  } else {
    refused = show(options, report);
  }
  isam::clear_errors();
  const Status status = refused ? refused->status : Status::kSound;
  report.pair_ends(status, refused ? refused->why : "shown", {});
  return {.status = status, .findings = 0};
}

// How many words each of them takes behind it.
std::size_t words_behind(const std::string& what) {
  return what == "dictionary" ? 0 : what == "key" ? 2 : 1;
}

}  // namespace

std::function<int()> prepare_show(Arguments& arguments) {
  const auto options = std::make_shared<ShowOptions>();
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  arguments.word_of("WHAT", options->what, {"record", "node", "key", "dictionary"},
                    "record, node, key or dictionary");
  arguments.words("WHICH", options->which, 2, "the number; of key: the index and the value");
  return [options] {
    if (options->which.size() != words_behind(options->what)) {
      fmt::print(stderr, "zentra: show {} takes {} word(s) behind it\n", options->what,
                 words_behind(options->what));
      return kUsage;
    }
    std::string name = options->name;
    checker::cut_suffix(name);
    return run_pairs({.command = "show",
                      .json = options->json,
                      .jobs = 1,
                      .pairs = {name},
                      .good = kVerdictDone,
                      .work = [&](const std::string& base, Report& report) {
                        return show_pair(*options, base, report);
                      }});
  };
}

}  // namespace zentra
