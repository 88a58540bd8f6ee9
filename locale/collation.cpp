#include "locale/collation.h"

#include <locale.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace locale {
namespace {

constexpr std::size_t kNameLimit = 36;
constexpr const char* kDefaultName = "C";

struct Client {
  locale_t collation = nullptr;
  bool bytewise = true;
  bool ready = false;
  int error = 0;
  std::string name;
};

Client client;

// "en_US.UTF-8" is "en_us.utf8" in a file.
std::string folded(std::string_view name) {
  std::string result;
  bool in_code_set = false;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    in_code_set = in_code_set || c == '.';
    if (in_code_set && c != '.' && std::isalnum(byte) == 0) continue;
    result += static_cast<char>(std::tolower(byte));
  }
  return result.substr(0, kNameLimit);
}

// The C library writes the territory in capitals: "en_us.utf8" is its "en_US.utf8".
std::string with_territory_in_capitals(std::string name) {
  const std::size_t from = name.find('_');
  if (from == std::string::npos) return name;
  for (std::size_t i = from + 1; i < name.size() && name[i] != '.' && name[i] != '@'; ++i) {
    name[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
  }
  return name;
}

locale_t load(const std::string& name) {
  const locale_t as_given = ::newlocale(LC_COLLATE_MASK | LC_CTYPE_MASK, name.c_str(), nullptr);
  if (as_given != nullptr) return as_given;
  return ::newlocale(LC_COLLATE_MASK | LC_CTYPE_MASK, with_territory_in_capitals(name).c_str(),
                     nullptr);
}

std::string terminated(common::ConstBytes field) {
  std::string text(reinterpret_cast<const char*>(field.data()), field.size());
  return text.c_str();  // up to the first zero byte
}

}  // namespace

int initulx() {
  const char* named = std::getenv("CLIENT_LOCALE");
  const std::string name = named == nullptr || *named == '\0' ? kDefaultName : named;
  errno = 0;
  const locale_t loaded = load(name);
  if (loaded == nullptr) {
    client.error = errno != 0 ? errno : ENOENT;
    return -1;
  }
  if (client.collation != nullptr) ::freelocale(client.collation);
  client.collation = loaded;
  client.bytewise = name == "C" || name == "POSIX";
  client.name = folded(name);
  client.ready = true;
  return 0;
}

int chkulxinit() { return client.ready ? 0 : initulx(); }

int get_ulxerror() { return client.error; }

std::string_view file_system_name() { return client.name; }

int compare(common::ConstBytes a, common::ConstBytes b) {
  const std::size_t shared = std::min(a.size(), b.size());
  if (!client.bytewise) {
    const int order = ::strcoll_l(terminated(a).c_str(), terminated(b).c_str(), client.collation);
    if (order != 0) return order;
  }
  return common::bycmpr(a.data(), b.data(), shared);
}

}  // namespace locale
