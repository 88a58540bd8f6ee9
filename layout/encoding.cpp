#include "layout/encoding.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>

#include "layout/forms.h"

namespace layout {
namespace {

constexpr char32_t kFirstPrintable = 0xA0;  // behind ASCII
constexpr std::size_t kLongestName = 40;
constexpr int kFirstHigh = 0x80;

// A name of a set, and no path or option of a conversion.
bool is_plain_name(const std::string& name) {
  constexpr std::string_view kOthers = "-_.:+()";
  return !name.empty() && name.size() <= kLongestName && std::ranges::all_of(name, [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kOthers.find(c) != kOthers.npos;
  });
}

// A conversion of the C library's to UTF-32.
class Conversion {
 public:
  explicit Conversion(const std::string& name)
      : handle_(is_plain_name(name) ? ::iconv_open("UTF-32LE", name.c_str()) : none()) {}
  Conversion(const Conversion&) = delete;
  Conversion& operator=(const Conversion&) = delete;
  ~Conversion() {
    if (*this) ::iconv_close(handle_);
  }
  explicit operator bool() const { return handle_ != none(); }

  // Of one byte: 0 for none. Nothing where a character has more bytes.
  [[nodiscard]] std::optional<char32_t> character(char byte) {
    std::array<unsigned char, 16> to{};
    char* from = &byte;
    char* at = reinterpret_cast<char*>(to.data());
    std::size_t left = 1;
    std::size_t room = to.size();
    ::iconv(handle_, nullptr, nullptr, nullptr, nullptr);
    const bool failed = ::iconv(handle_, &from, &left, &at, &room) == static_cast<std::size_t>(-1);
    if (failed) return errno == EINVAL ? std::nullopt : std::optional(U'\0');
    ::iconv(handle_, nullptr, nullptr, &at, &room);  // what may be joined with the next one
    if (to.size() - room != 4) return U'\0';
    return static_cast<char32_t>(to[0] | to[1] << 8 | to[2] << 16);
  }

 private:
  // What stands for no conversion is a number in place of a pointer.
  static iconv_t none() {
    return reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)
  }
  iconv_t handle_;
};

char* put_utf8(char32_t code, char* to) {
  const auto put = [&](char32_t bits) { *to++ = static_cast<char>(bits); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
  return to;
}

}  // namespace

bool is_utf8_name(std::string_view name) {
  return name == "utf-8" || name == "UTF-8" || name == "utf8" || name == "UTF8";
}

// Those of more than three bytes in UTF-8 are in no set of this kind.
bool Encoding::take(const std::string& name) {
  constexpr char32_t kMost = 0xFFFF;
  Conversion conversion{name};
  if (!conversion) return false;
  for (int i = 0; i < 256; ++i) {
    const char byte = static_cast<char>(i);
    const auto character = conversion.character(byte);
    if (!character) return false;
    if (i < kFirstHigh) {
      const bool is_ascii = *character == static_cast<char32_t>(i);
      if (!is_ascii && i >= ' ' && i <= '~') return false;
    } else if (*character >= kFirstPrintable && *character <= kMost &&
               bytes_.emplace(*character, byte).second) {
      characters_.at(static_cast<std::size_t>(i)) = *character;
    }
  }
  return !bytes_.empty();
}

std::shared_ptr<const Encoding> Encoding::named(const std::string& name) {
  auto encoding = std::make_shared<Encoding>();
  return encoding->take(name) ? encoding : nullptr;
}

bool Encoding::has_all(std::string_view text) const {
  return std::ranges::all_of(text, [this](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < kFirstHigh || characters_[byte] != 0;
  });
}

char* Encoding::put(char byte, char* to) const {
  const auto place = static_cast<unsigned char>(byte);
  return put_utf8(place < kFirstHigh ? place : characters_[place], to);
}

std::optional<std::string> Encoding::bytes_of(std::string_view text) const {
  std::string bytes;
  while (!text.empty()) {
    const Character character = character_in(text);
    if (character.size == 0) return {};
    text.remove_prefix(character.size);
    if (character.code < static_cast<std::uint32_t>(kFirstHigh)) {
      bytes += static_cast<char>(character.code);
      continue;
    }
    const auto at = bytes_.find(character.code);
    if (at == bytes_.end()) return {};
    bytes += at->second;
  }
  return bytes;
}

}  // namespace layout
