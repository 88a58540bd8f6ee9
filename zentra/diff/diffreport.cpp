#include "zentra/diff/diffreport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "layout/value.h"
#include "zentra/check/collector.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::int64_t kShownAlike = 10;  // differences of one kind on a terminal

constexpr const char* verdict_of(Compared compared) {
  return compared == Compared::kEqual       ? "equal"
         : compared == Compared::kDifferent ? "different"
                                            : "trouble";
}

std::string json_of(const layout::Field& field, isam::ConstBytes bytes) {
  std::string text(layout::text_room(bytes.size()), '\0');
  char* const end = layout::put_json(field, bytes, text.data());
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

// The value for people; of a long one what stands around `first`, the byte that differs first.
std::string words_of(const layout::Field& field, isam::ConstBytes bytes, std::size_t first) {
  constexpr std::size_t kBefore = 16;
  constexpr std::size_t kMost = 64;
  const std::size_t begin =
      field.type == layout::Type::kBytes || bytes.size() > kMost
          ? std::min(first < kBefore || bytes.size() <= kMost ? 0 : first - kBefore, bytes.size())
          : 0;
  const isam::ConstBytes seen = bytes.subspan(begin, std::min(kMost, bytes.size() - begin));
  std::string text(layout::text_room(seen.size()), '\0');
  const auto [end, kind] = layout::put_plain(field, seen, text.data());
  text.resize(static_cast<std::size_t>(end - text.data()));
  if (kind == layout::Kind::kNull) text = "nothing";
  if (kind == layout::Kind::kText) text = '"' + shown(text) + '"';
  if (kind == layout::Kind::kHex) text = "0x" + text;
  return (begin > 0 ? "..." : "") + text + (begin + seen.size() < bytes.size() ? "..." : "");
}

}  // namespace

void DiffReport::say(const std::string& line) const {
  erase_progress();
  std::fwrite(line.data(), 1, line.size(), stdout);
}

void DiffReport::begin(const std::string& a, const std::string& b) {
  names_[0] = shown(a);
  names_[1] = shown(b);
  if (!how_.json) {
    if (!how_.is_brief) say(fmt::format("{} and {}:\n", names_[0], names_[1]));
    return;
  }
  print_json({{"schema", std::int64_t{checker::kSchema}},
              {"type", std::string("begin")},
              {"command", std::string("diff")},
              {"pairs", std::int64_t{2}}});
  for (const int side : {0, 1}) {
    print_json({{"type", std::string("pair")},
                {"pair", std::int64_t{side + 1}},
                {"pairs", std::int64_t{2}},
                {"name", FileBytes{.bytes = side == 0 ? a : b}}});
  }
}

void DiffReport::unlike(const Unlike& unlike) {
  is_different_ = true;
  if (how_.is_brief) return;
  const auto words = [](const std::string& text) { return text.empty() ? "none" : text; };
  const std::string text =
      fmt::format("{}: {} -> {}", unlike.what, words(unlike.a), words(unlike.b));
  if (!how_.json) return say("  " + text + '\n');
  print_json({{"type", std::string("detail")},
              {"code", std::string("diff.structure")},
              {"what", unlike.what},
              {"was", unlike.a},
              {"is", unlike.b},
              {"message", text}});
}

void DiffReport::order(const std::string& words) {
  if (how_.is_brief) return;
  if (!how_.json) return say("  records by " + words + '\n');
  print_json({{"type", std::string("note")},
              {"code", std::string("diff.order")},
              {"message", "records by " + words}});
}

void DiffReport::compares(const ComparedFields& fields, const Order& order) {
  fields_ = &fields;
  order_ = order;
}

void DiffReport::trouble(const std::string& text) {
  is_troubled_ = true;
  if (!how_.json) return say("  " + text + '\n');
  print_json({{"type", std::string("finding")},
              {"code", std::string("diff.trouble")},
              {"message", text},
              {"verdict", std::string("trouble")}});
}

bool DiffReport::is_shown(Count& count) const {
  ++count.all;
  return !how_.is_brief && (!how_.is_terminal || count.all <= kShownAlike);
}

std::string DiffReport::key_words(const std::vector<isam::Byte>& record) const {
  std::string key;
  for (int i = 0; i < order_.key->nparts; ++i) {
    const keypart& part = order_.key->part[i];
    key += as_text(isam::ConstBytes{record}.subspan(static_cast<std::size_t>(part.start),
                                                    static_cast<std::size_t>(part.length)));
  }
  return key;
}

// `other`: the number in the second pair, of one that has changed; else 0.
void DiffReport::tell_record(Count& count, int side, std::int32_t number, std::int32_t other) {
  const std::vector<isam::Byte>& record = records_[side];
  const bool has_key = order_.key && !record.empty();
  const std::string key = has_key ? key_words(record) : "";
  if (how_.json) {
    Fields fields{{"type", std::string("detail")}, {"code", std::string(count.code)}};
    fields.emplace_back("in", std::int64_t{side + 1});
    if (has_key) fields.emplace_back("key", FileBytes{.bytes = key});
    fields.emplace_back("record", std::int64_t{number});
    if (other != 0) fields.emplace_back("other-record", std::int64_t{other});
    return print_json(fields);
  }
  std::string text = fmt::format("    {}: ", count.word);
  if (has_key) text += shown_key(*order_.key, key) + ", ";
  text += fmt::format("record {}", number);
  if (other != 0 && other != number) text += fmt::format(", now record {}", other);
  say(text + '\n');
}

void DiffReport::tell_field(std::int32_t number, const ComparedFields::Difference& difference) {
  if (how_.json) {
    say(fmt::format(R"({{"type":"detail","code":"diff.field","record":{},"field":"{}","was":{},)"
                    R"("is":{}}})"
                    "\n",
                    number, difference.field.name, json_of(difference.field, difference.was),
                    json_of(difference.other, difference.is)));
    return;
  }
  const auto first = std::ranges::mismatch(difference.was, difference.is).in1;
  const auto at = static_cast<std::size_t>(first - difference.was.begin());
  say(fmt::format("        {}: {} -> {}\n", difference.field.name,
                  words_of(difference.field, difference.was, at),
                  words_of(difference.other, difference.is, at)));
}

void DiffReport::removed(std::int32_t a) {
  is_different_ = true;
  if (!is_shown(removed_)) return;
  static_cast<void>(read_record(pairs_[0], a, records_[0]));
  tell_record(removed_, 0, a, 0);
}

void DiffReport::added(std::int32_t b) {
  is_different_ = true;
  if (!is_shown(added_)) return;
  static_cast<void>(read_record(pairs_[1], b, records_[1]));
  tell_record(added_, 1, b, 0);
}

void DiffReport::changed(std::int32_t a, std::int32_t b) {
  is_different_ = true;
  if (!is_shown(changed_)) return;
  const bool are_read =
      read_record(pairs_[0], a, records_[0]) && read_record(pairs_[1], b, records_[1]);
  tell_record(changed_, 0, a, b);
  if (!are_read) return;
  fields_->differences(records_[0], records_[1],
                       [&](const ComparedFields::Difference& one) { tell_field(a, one); });
}

void DiffReport::left_out(int side, std::int32_t number, const char* why) {
  is_troubled_ = true;
  if (!is_shown(left_out_)) return;
  const std::string text =
      fmt::format("record {} of {}: not compared: {}", number, names_[side], why);
  if (!how_.json) return say("    " + text + '\n');
  print_json({{"type", std::string("finding")},
              {"code", std::string(left_out_.code)},
              {"in", std::int64_t{side + 1}},
              {"record", std::int64_t{number}},
              {"message", text},
              {"verdict", std::string("trouble")}});
}

Compared DiffReport::end(const Fields& totals) {
  const Compared compared = is_troubled_    ? Compared::kTrouble
                            : is_different_ ? Compared::kDifferent
                                            : Compared::kEqual;
  Fields fields;
  if (!how_.is_brief) {
    for (const auto& [name, count] :
         {std::pair("removed", removed_), std::pair("added", added_),
          std::pair("changed", changed_), std::pair("left-out", left_out_)}) {
      fields.emplace_back(name, count.all);
      if (!how_.json && how_.is_terminal && count.all > kShownAlike) {
        say(fmt::format("    ... and {} more {}\n", grouped(count.all - kShownAlike), count.word));
      }
    }
    fields.insert(fields.end(), totals.begin(), totals.end());
  }
  std::string verdict = verdict_of(compared);
  if (compared == Compared::kTrouble) {
    verdict =
        is_different_ ? "different, and not all could be compared" : "not all could be compared";
  }
  if (how_.json) {
    Fields line{{"type", std::string("end")}};
    line.insert(line.end(), fields.begin(), fields.end());
    line.emplace_back("different", is_different_);
    line.emplace_back("message", verdict);
    line.emplace_back("status", static_cast<std::int64_t>(compared));
    line.emplace_back("verdict", std::string(verdict_of(compared)));
    print_json(line);
    return compared;
  }
  std::string text = fmt::format("{} and {}: {}", names_[0], names_[1], verdict);
  std::string counts;
  for (const auto& [name, value] : fields) {
    const auto* number = std::get_if<std::int64_t>(&value);
    if (number == nullptr || *number == 0) continue;
    counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", grouped(*number), name);
  }
  say(text + (counts.empty() ? "" : ": " + counts) + '\n');
  return compared;
}

}  // namespace zentra
