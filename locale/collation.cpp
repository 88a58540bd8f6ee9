#include "locale/collation.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "environment/settings.h"
#include "locale/name.h"

namespace locale {
namespace {

using common::Byte;
using common::ConstBytes;

// While it lives, this thread's character functions are those of a locale.
class InUse {
 public:
  explicit InUse(locale_t locale) : before_(::uselocale(locale)) {}
  InUse(const InUse&) = delete;
  InUse& operator=(const InUse&) = delete;
  ~InUse() { ::uselocale(before_); }

 private:
  locale_t before_;
};

struct Client {
  locale_t collation = nullptr;
  bool bytewise = true;
  bool ready = false;
  int error = 0;
  std::string name;                      // as file_name() gives it
  std::array<bool, 256> is_character{};  // bytes that are a character each, zero excepted
  std::string texts[2];  // copies of two texts being compared; kept for their memory
};

Client client;

// How many bytes the first character of `text` has; 0 when `text` is empty, begins with a zero byte
// or begins with no whole character of the locale. For the last mbrlen() returns a number greater
// than any size.
std::size_t character_length(ConstBytes text) {
  std::mbstate_t state{};
  const std::size_t length =
      ::mbrlen(reinterpret_cast<const char*>(text.data()), text.size(), &state);
  return length <= text.size() ? length : 0;
}

std::array<bool, 256> single_bytes(locale_t locale) {
  const InUse in_use{locale};
  std::array<bool, 256> result{};
  for (std::size_t i = 1; i < result.size(); ++i) {
    const auto byte = static_cast<Byte>(i);
    result[i] = character_length({&byte, 1}) == 1;
  }
  return result;
}

std::size_t skip_single_bytes(ConstBytes field, std::size_t at) {
  while (at < field.size() && client.is_character[field[at]]) ++at;
  return at;
}

// Where the text ends that a field begins with (compare() in the header defines the text). The
// thread's locale changes only when a field has more than characters of one byte.
std::size_t text_end(ConstBytes field) {
  std::size_t end = skip_single_bytes(field, 0);
  if (end == field.size() || field[end] == 0) return end;
  const InUse in_use{client.collation};
  while (end < field.size()) {
    const std::size_t length = character_length(field.subspan(end));
    if (length == 0) break;
    end = skip_single_bytes(field, end + length);
  }
  return end;
}

ConstBytes without_padding(ConstBytes field) {
  while (!field.empty() && field.back() == ' ') field = field.first(field.size() - 1);
  return field;
}

const char* terminated(ConstBytes text, std::string& room) {
  room.assign(reinterpret_cast<const char*>(text.data()), text.size());
  return room.c_str();
}

int compare_texts(ConstBytes a, ConstBytes b) {
  return ::strcoll_l(terminated(a, client.texts[0]), terminated(b, client.texts[1]),
                     client.collation);
}

int compare_bytes(ConstBytes a, ConstBytes b) {
  const int order = common::bycmpr(a.data(), b.data(), std::min(a.size(), b.size()));
  return order != 0 ? order : (a.size() > b.size()) - (a.size() < b.size());
}

// Loads a locale: by the name as it was given, for the system may know no other, else by the name
// written as the system writes names. Null, with errno, when neither is known.
locale_t load(const std::string& given, const std::string& name) {
  constexpr int kParts = LC_COLLATE_MASK | LC_CTYPE_MASK;
  const locale_t loaded = ::newlocale(kParts, given.c_str(), nullptr);
  return loaded != nullptr ? loaded : ::newlocale(kParts, system_name(name).c_str(), nullptr);
}

int refuse(int error) {
  client.error = error;
  return -1;
}

}  // namespace

int initulx() {
  std::string given = environment::lookup("CLIENT_LOCALE").value_or("");
  if (given.empty()) given = kByteOrder;
  std::string name = file_name(given);
  if (name.empty()) return refuse(EINVAL);
  errno = 0;
  const locale_t loaded = load(given, name);
  if (loaded == nullptr) return refuse(errno != 0 ? errno : ENOENT);
  if (client.collation != nullptr) ::freelocale(client.collation);
  client.collation = loaded;
  client.bytewise = name == kByteOrder;
  client.is_character = single_bytes(loaded);
  client.name = std::move(name);
  client.ready = true;
  return 0;
}

int chkulxinit() { return client.ready ? 0 : initulx(); }

int get_ulxerror() { return client.error; }

std::string_view file_system_name() { return client.name; }

int compare(ConstBytes a, ConstBytes b) {
  if (client.bytewise) return compare_bytes(a, b);
  a = without_padding(a);
  b = without_padding(b);
  if (std::ranges::equal(a, b)) return 0;
  const std::size_t a_end = text_end(a);
  const std::size_t b_end = text_end(b);
  const int order = compare_texts(a.first(a_end), b.first(b_end));
  return order != 0 ? order : compare_bytes(a.subspan(a_end), b.subspan(b_end));
}

}  // namespace locale
