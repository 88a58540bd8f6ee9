#include "tests/support/log_words.h"

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "isam/log/logformat.h"
#include "tests/support/logged_pairs.h"

namespace testing_support {
namespace {

using isam::txlog::ConstBytes;
using isam::txlog::Link;
using isam::txlog::LogRecordBuilder;
using isam::txlog::LogType;

constexpr int kProcesses = 100;  // the number of process A
constexpr keydescr kUniqueGroups{0, 1, {{kGroupAt + 1, 7, KT_CHAR}}, 0, 0};

std::string record_in(const std::string& text) {
  const auto number_behind = [&](char sign) {
    const std::size_t at = text.find(sign);
    return at == text.npos ? 0 : std::atoi(&text[at + 1]);
  };
  return row(std::atoi(text.c_str()), number_behind('.'), number_behind('+'));
}

class Log {
 public:
  void add(const std::string& word);
  Image bytes{0xFB, 0x85, 0x9E, 0x78};

 private:
  struct Process {
    Link chain;           // its last linked record
    Image last;           // image
    Link before_last;     // what stood in the chain before it
    int opens[2]{4, 3};   // number of its open outside of transactions, and inside
    std::set<int> known;  // opens that were logged
    bool hides_opens = false;
  };

  // `fill` adds the payload. Linked ones name the one before them.
  template <typename Fill>
  void record(LogType type, int process, bool linked, Fill fill) {
    const std::size_t at = bytes.size();
    LogRecordBuilder builder{bytes, type};
    fill(builder);
    static_cast<void>(builder.finish());
    Link& chain = processes_[process].chain;
    isam::txlog::stamp_record(&bytes[at], process, 0, 1, linked ? chain : Link{});
    if (linked) chain = {static_cast<std::int64_t>(at), static_cast<int>(bytes.size() - at)};
  }
  void names(LogType type, int process, int open, const std::string& name) {
    record(type, process, false, [&](LogRecordBuilder& builder) {
      builder.put_word(open);
      builder.put_word(name[0] == 'v' ? 1 : 0);
      builder.put_name(name);
    });
  }
  void image(LogType type, int process, bool linked, int open, const std::string& text) {
    const std::size_t colon = text.find(':'), arrow = text.find('>');
    const std::string first = record_in(text.substr(colon + 1));
    const std::string second = arrow == text.npos ? first : record_in(text.substr(arrow + 1));
    const bool has_old = type != LogType::kInsert, has_new = type != LogType::kDelete;
    const auto bytes_of = [](const std::string& of) {
      return ConstBytes{reinterpret_cast<const Byte*>(of.data()), of.size()};
    };
    Process& writer = processes_[process];
    writer.before_last = writer.chain;
    const std::size_t at = bytes.size();
    record(type, process, linked, [&](LogRecordBuilder& builder) {
      builder.put_image(type,
                        {open, std::atoi(text.c_str()), has_old ? bytes_of(first) : ConstBytes{},
                         has_new ? bytes_of(second) : ConstBytes{}});
    });
    writer.last.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end());
  }

  std::map<int, Process> processes_;
};

void Log::add(const std::string& word) {
  if (word[0] == '-') return;
  const bool linked = word[0] < 'a';
  const int number = kProcesses + (linked ? word[0] - 'A' : word[0] - 'a');
  const char kind = word[1];
  const std::string rest = word.substr(2);
  const std::string name = rest.substr(rest.find(':') + 1);
  Process& process = processes_[number];
  int& open = process.opens[linked];
  const auto mark = [&](LogType type) { record(type, number, true, [](LogRecordBuilder&) {}); };
  const auto named = [&](LogType type) {
    record(type, number, false, [&](LogRecordBuilder& builder) {
      if (type == LogType::kBuilt) {
        for (const int value : {ISINOUT + ISEXCLLOCK, kMinimum, kMinimum}) builder.put_word(value);
        builder.put_key(id_key());
      }
      builder.put_name(name.empty() ? "pair" : name);
    });
  };
  if (word[0] == '0') {
    for (std::size_t at = 0; at + 1 < rest.size(); at += 2) {
      bytes.push_back(static_cast<Byte>(std::strtoul(rest.substr(at, 2).c_str(), nullptr, 16)));
    }
    return;
  }
  switch (kind) {
    case '[':
      return mark(LogType::kBegin);
    case ']':
      return mark(LogType::kCommit);
    case '~':
      return mark(LogType::kRollback);
    case '#':
      process.chain = {};
      [[fallthrough]];
    case '=':
      return process.known.clear();
    case '.':
      process.hides_opens = true;
      return;
    case '%':
      bytes.back() ^= 1;
      return;
    case 'o':
      open = std::atoi(rest.c_str());
      process.known.insert(open);
      return names(LogType::kOpened, number, open, name);
    case 'x':
      return names(LogType::kClosed, number, std::atoi(rest.c_str()), name);
    case 'e':
      return named(LogType::kErased);
    case 'b':
      return named(LogType::kBuilt);
    case 'r':
      return record(LogType::kRenamed, number, false, [&](LogRecordBuilder& builder) {
        const std::size_t arrow = name.find('>');
        builder.put_word(static_cast<int>(arrow + 1));
        builder.put_word(static_cast<int>(name.size() - arrow));
        builder.put_name(name.substr(0, arrow));
        builder.put_name(name.substr(arrow + 1));
      });
    case '!': {
      Image opposite = process.last;
      static_cast<void>(isam::txlog::make_opposite(opposite));
      bytes.insert(bytes.end(), opposite.begin(), opposite.end());
      process.chain = process.before_last;
      return;
    }
    default:
      break;
  }
  if (kind != 'm' && !process.hides_opens && process.known.insert(open).second) {
    names(LogType::kOpened, number, open, "pair");
  }
  const std::map<char, LogType> kImages{
      {'+', LogType::kInsert}, {'-', LogType::kDelete}, {'*', LogType::kUpdate}};
  if (const auto found = kImages.find(kind); found != kImages.end()) {
    return image(found->second, number, linked, open, rest);
  }
  const std::map<char, LogType> kOthers{{'c', LogType::kClustered},    {'i', LogType::kIndexAdded},
                                        {'d', LogType::kIndexDropped}, {'m', LogType::kMessage},
                                        {'u', LogType::kUniqueTaken},  {'s', LogType::kUniqueSet}};
  record(kOthers.at(kind), number, false, [&](LogRecordBuilder& builder) {
    if (kind == 'm') {
      for (const int value : {0, 0, 101, 2, 0x13}) builder.put_word(value);
      return builder.put_name("9035" + name);
    }
    builder.put_word(open);
    if (kind == 'u' || kind == 's') return builder.put_long(std::atoi(rest.c_str()));
    builder.put_key(kind == 'c' ? id_key() : kUniqueGroups);
  });
}

}  // namespace

Image log_of(const std::string& words) {
  Log log;
  std::istringstream stream{words};
  for (std::string word; stream >> word;) log.add(word);
  return log.bytes;
}

}  // namespace testing_support
