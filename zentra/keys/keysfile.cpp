#include "zentra/keys/keysfile.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "checker/checks.h"
#include "checker/driver.h"
#include "common/number.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "zentra/files/textfile.h"
#include "zentra/keys/newkeys.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::int64_t kMostBytes = 8 << 20;  // of a file: more than all that a pair can have
constexpr std::string_view kBlanks = " \t\r";
constexpr char kByNumber[] = "number";

struct Word {
  const char* text;
  int value;
};
constexpr std::array<Word, 13> kTypes = {{{"char", KT_CHAR},
                                          {"int", KT_INT},
                                          {"long", KT_LONG},
                                          {"double", KT_DOUBLE},
                                          {"float", KT_FLOAT},
                                          {"locale", KT_LOCALE},
                                          {"coll1", KT_COLL1},
                                          {"coll2", KT_COLL2},
                                          {"coll3", KT_COLL3},
                                          {"coll4", KT_COLL4},
                                          {"coll5", KT_COLL5},
                                          {"coll6", KT_COLL6},
                                          {"coll7", KT_COLL7}}};
constexpr std::array<Word, 5> kFlags = {{{"dups", KF_DUPS},
                                         {"compress", KF_COMPRESS},
                                         {"repeat", KF_DCOMPRESS},
                                         {"lead", KF_LCOMPRESS},
                                         {"tail", KF_TCOMPRESS}}};

template <std::size_t N>
const Word* find(const std::array<Word, N>& words, std::string_view text) {
  const auto* const at =
      std::ranges::find_if(words, [&](const Word& word) { return word.text == text; });
  return at == words.end() ? nullptr : at;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t from = text.find_first_not_of(kBlanks);
  if (from == text.npos) return {};
  return text.substr(from, text.find_last_not_of(kBlanks) + 1 - from);
}

// Cuts the text in front of a sign off, and the sign.
std::string_view take(std::string_view& text, char sign) {
  const std::size_t end = std::min(text.find(sign), text.size());
  const std::string_view taken = trimmed(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return taken;
}

// One line, which is neither empty nor a comment. `why`: what is wrong with it.
class Line {
 public:
  // False: `why` tells.
  [[nodiscard]] bool read(std::string_view text) {
    if (text == kByNumber) return true;
    if (text.ends_with('+')) return fail("a part is missing behind +");
    while (!text.empty()) {
      if (key_.nparts == MAXPARTS) return fail(fmt::format("more than {} parts", MAXPARTS));
      const std::string_view part = take(text, '+');
      if (!read_part(part, text.empty())) return false;
      ++key_.nparts;
    }
    const isam::KeepError keep;
    if (isam::kylegal(key_, INT16_MAX) != 0 || key_.keylen == 0) {
      return fail(
          fmt::format("a key has from 1 to {} bytes, a part the length of its type", MAXKEYLEN));
    }
    return true;
  }
  [[nodiscard]] const keydescr& key() const { return key_; }
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  bool fail(std::string why) {
    why_ = std::move(why);
    return false;
  }
  bool read_number(std::string_view text, std::int16_t& to) {
    const auto number = common::number_within(text, 0, INT16_MAX);
    if (!number) return fail(fmt::format("no number from 0 to {}: {}", INT16_MAX, shown(text)));
    to = static_cast<std::int16_t>(*number);
    return true;
  }
  bool read_part(std::string_view text, bool is_last) {
    if (text.ends_with(',')) return fail("a word is missing behind ,");
    keypart& part = key_.part[key_.nparts];
    if (!read_number(take(text, ','), part.start) || !read_number(take(text, ','), part.length)) {
      return false;
    }
    const std::string_view type = take(text, ',');
    const Word* const known = find(kTypes, type);
    if (known == nullptr) return fail(fmt::format("no type of a part: {}", shown(type)));
    part.type = static_cast<std::int16_t>(known->value);
    while (!text.empty()) {
      const std::string_view word = take(text, ',');
      const Word* const flag = find(kFlags, word);
      if (word == "desc") {
        part.type = static_cast<std::int16_t>(part.type | KT_DESC);
      } else if (flag != nullptr && is_last) {
        key_.flags = static_cast<std::int16_t>(key_.flags | flag->value);
      } else {
        return fail(flag != nullptr ? shown(word) + " stands behind the last part"
                                    : "no word of a key: " + shown(word));
      }
    }
    return true;
  }

  keydescr key_{};
  std::string why_;
};

NewKeys refused(std::string why, Status status = Status::kUnfinished) {
  return {.keys = {}, .why = std::move(why), .status = status};
}

// Hears a check without a word.
class Silent : public checker::Listener {
 public:
  void found(const checker::Finding& /*finding*/) override {}
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t /*code*/, std::int32_t /*place*/) override {}
};

}  // namespace

std::string line_of(const keydescr& k) {
  if (k.nparts == 0) return kByNumber;
  std::string line;
  for (int i = 0; i < k.nparts; ++i) {
    const keypart& part = k.part[i];
    const auto* const type = std::ranges::find(kTypes, part.type & ~KT_DESC, &Word::value);
    line += fmt::format("{}{},{},{}{}", i == 0 ? "" : "+", part.start, part.length,
                        type == kTypes.end() ? "char" : type->text,
                        (part.type & KT_DESC) != 0 ? ",desc" : "");
  }
  int flags = k.flags;
  for (const Word& word : kFlags) {
    if ((flags & word.value) != word.value) continue;
    line += fmt::format(",{}", word.text);
    flags &= ~word.value;
  }
  return line;
}

KeyOfLine key_of_line(std::string_view text) {
  Line line;
  if (!line.read(trimmed(text))) return {.why = line.why()};
  return {.key = line.key()};
}

int make_legal(std::vector<keydescr>& keys) {
  for (std::size_t i = 0; i < keys.size(); ++i) {
    keydescr& k = keys[i];
    // In the order of a locale nothing is compressed.
    if (isam::kynchar(k)) k.flags = static_cast<std::int16_t>(k.flags & ~KF_COMPRESS);
    const bool legal = (k.nparts == 0 || isam::kylegal(k, isam::dictp->d_recsize()) == 0) &&
                       (k.flags & KF_COMPRESS & ~(isam::dictp->d_compression() << 1)) == 0;
    const auto is_same = [&](const keydescr& other) { return isam::kycompare(other, k) == 0; };
    isam::clear_errors();
    const auto before = keys.begin() + static_cast<std::ptrdiff_t>(i);
    if (legal && (k.nparts == 0 || std::none_of(keys.begin(), before, is_same))) continue;
    return static_cast<int>(i) + 1;
  }
  return 0;
}

NewKeys keys_of_file(const std::string& path) {
  const auto text = contents_of(path, kMostBytes);
  if (!text) return refused(fmt::format("{}: {}", shown(path), std::strerror(errno)));
  NewKeys found;
  std::vector<int> lines;  // where each stands
  std::string_view rest = *text;
  for (int number = 1; !rest.empty(); ++number) {
    std::string_view all = take(rest, '\n');
    const std::string_view words = take(all, '#');
    if (words.empty()) continue;
    const auto refuse = [&](const std::string& why) {
      return refused(fmt::format("{}:{}: {}", shown(path), number, why));
    };
    Line line;
    if (!line.read(words)) return refuse(line.why());
    if (line.key().nparts == 0 && !found.keys.empty()) {
      return refuse("only the primary key, which is the first, is by number");
    }
    if (found.keys.size() == isam::kMostDescriptions) return refuse("too many indexes");
    for (std::size_t i = 0; i < found.keys.size(); ++i) {
      if (isam::kycompare(found.keys[i], line.key()) == 0) {
        return refuse(fmt::format("the index of line {} again", lines[i]));
      }
    }
    found.keys.push_back(line.key());
    lines.push_back(number);
  }
  if (found.keys.empty()) return refused(fmt::format("{}: no index", shown(path)));
  return found;
}

NewKeys keys_like(const std::string& name, std::chrono::milliseconds wait) {
  std::string base = name;
  checker::cut_suffix(base);
  ReadPair pair;
  if (!pair.open(base, wait, ReadPair::Look::kLittle) || !pair.load()) {
    return refused(fmt::format("{}: {}", shown(base), pair.why()), pair.status());
  }
  Silent silent;
  const checker::Options options{.nflag = 1, .qflag = 1};
  checker::Check check(options, silent);
  NewKeys found;
  if (!checker::ckdict(check)) {
    isam::clear_errors();
    return refused(fmt::format("{}: its dictionary is damaged", shown(base)),
                   Status::kNeedsSalvage);
  }
  isam::KeyChain chain;
  keydescr k{};
  isam::KeyChain::Step step = chain.next(k);
  for (; step == isam::KeyChain::Step::kFound; step = chain.next(k)) {
    if (found.keys.size() == isam::kMostDescriptions) break;
    if (k.nparts == 0) k.part[0] = {};
    k.keylen = 0;
    k.rootnode = 0;
    found.keys.push_back(k);
  }
  isam::clear_errors();
  if (step != isam::KeyChain::Step::kEnd || found.keys.empty()) {
    return refused(fmt::format("{}: its key descriptions cannot be read", shown(base)),
                   Status::kNeedsSalvage);
  }
  return found;
}

}  // namespace zentra
