#include "environment/settings_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/holders.h"

namespace environment {
namespace {

constexpr char kComment = '#';
constexpr char kEscape = '\\';

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool is_control(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < 0x20 && c != '\t') || byte == 0x7F;
}

// Independent of the process's locale.
bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool is_name_character(char c) { return is_letter(c) || (c >= '0' && c <= '9'); }

// What is left of a line that is read from left to right.
class Line {
 public:
  explicit Line(std::string_view text) : left_(text) {
    if (left_.ends_with('\r')) left_.remove_suffix(1);
    skip_blanks();
  }

  // Whether nothing is left, or only a comment.
  [[nodiscard]] bool done() const { return left_.empty() || left_.front() == kComment; }

  // Gives `setting` a name and a value: null, or the reason why it cannot. Not of a line that is
  // done().
  const char* read(Setting& setting) {
    if (std::ranges::any_of(left_, is_control)) return "control character";
    if (!is_letter(left_.front())) return "a name begins with a letter or an underscore";
    const auto end = std::ranges::find_if_not(left_, is_name_character);
    setting.name = take(static_cast<std::size_t>(end - left_.begin()));
    if (setting.name.size() > kMaxSettingName) return "name too long";
    if (!left_.empty() && !is_blank(left_.front())) return "a blank must follow the name";
    skip_blanks();
    if (done()) return "no value (an empty one is written \"\")";
    if (left_.front() == '"' || left_.front() == '\'') return read_quoted(setting.value);
    read_plain(setting.value);
    return nullptr;
  }

 private:
  void skip_blanks() {
    while (!left_.empty() && is_blank(left_.front())) left_.remove_prefix(1);
  }

  std::string take(std::size_t count) {
    std::string taken{left_.substr(0, count)};
    left_.remove_prefix(count);
    return taken;
  }

  // A value does not begin with a blank or a comment's sign.
  void read_plain(std::string& value) {
    std::size_t end = 0;  // behind the last character that is not blank
    for (std::size_t i = 0; i < left_.size(); ++i) {
      if (is_blank(left_[i])) continue;
      if (left_[i] == kComment && is_blank(left_[i - 1])) break;
      end = i + 1;
    }
    value = take(end);
  }

  const char* read_quoted(std::string& value) {
    const char quote = left_.front();
    std::size_t at = 1;
    for (; at < left_.size() && left_[at] != quote; ++at) {
      if (quote == '"' && left_[at] == kEscape && at + 1 < left_.size()) ++at;
      value += left_[at];
    }
    if (at == left_.size()) return "the quote is not closed";
    left_.remove_prefix(at + 1);
    const bool apart = left_.empty() || is_blank(left_.front());
    skip_blanks();
    return apart && done() ? nullptr : "text behind the closing quote";
  }

  std::string_view left_;
};

void read_line(std::string_view text, int number, SettingsFile& file) {
  Line line{text};
  if (line.done()) return;
  Setting setting{{}, {}, number};
  if (const char* reason = line.read(setting)) {
    file.problems.push_back({number, reason});
  } else {
    file.settings.push_back(std::move(setting));
  }
}

SettingsFile unreadable(const std::string& path, std::string reason) {
  return {path, {}, {{0, std::move(reason)}}};
}

}  // namespace

const Setting* SettingsFile::find(std::string_view name) const {
  const auto found = std::find_if(settings.rbegin(), settings.rend(),
                                  [&](const Setting& setting) { return setting.name == name; });
  return found == settings.rend() ? nullptr : &*found;
}

SettingsFile parse_settings(std::string path, std::string_view text) {
  SettingsFile file{std::move(path), {}, {}};
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    read_line(text.substr(0, end), number, file);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return file;
}

SettingsFile read_settings(const std::string& path) {
  const common::FileHold fd{
      common::open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)};  // never waits for a fifo
  if (!fd) {
    if (errno == ENOENT || errno == ENOTDIR) return {path, {}, {}};
    return unreadable(path, std::strerror(errno));
  }
  struct stat status {};
  if (common::system_calls().fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return unreadable(path, "not a regular file");
  }
  std::string text(kMaxSettingsFile + 1, '\0');
  const ssize_t got =
      common::read_at(fd.get(), {reinterpret_cast<common::Byte*>(text.data()), text.size()}, 0);
  if (got < 0) return unreadable(path, std::strerror(errno));
  const auto size = static_cast<std::size_t>(got);
  if (size > kMaxSettingsFile) return unreadable(path, "larger than 65536 bytes");
  return parse_settings(path, std::string_view{text}.substr(0, size));
}

}  // namespace environment
