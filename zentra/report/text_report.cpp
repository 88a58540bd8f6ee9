#include <fmt/format.h>

#include <cstdio>
#include <map>

#include "zentra/report/progress.h"
#include "zentra/report/report.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr int kShownAlike = 10;  // details of one kind on a terminal

std::string told(const Value& value) {
  if (const auto* bytes = std::get_if<FileBytes>(&value)) {
    return bytes->shown.empty() ? fmt::format("\"{}\"", shown(bytes->bytes)) : bytes->shown;
  }
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* flag = std::get_if<bool>(&value)) return *flag ? "yes" : "no";
  if (const auto* number = std::get_if<double>(&value)) return fmt::format("{:.3f}", *number);
  return fmt::format("{}", std::get<std::int64_t>(value));
}

std::string told(const Fields& fields) {
  std::string text;
  for (const auto& [name, value] : fields) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, told(value));
  }
  return text;
}

class TextReport : public Report {
 public:
  explicit TextReport(bool is_terminal) : most_(is_terminal ? kShownAlike : INT32_MAX) {}

  void begin(const char* /*command*/, int /*pairs*/) override {}
  void pair_begins(int number, int /*pairs*/, const std::string& name) override {
    pair_is(number, name);
    put(fmt::format("{}:\n", name_));
  }
  void pair_is(int /*number*/, const std::string& name) override { name_ = shown(name); }
  void entry(const Entry& entry) override {
    const std::string index = entry.key == 0 ? "" : fmt::format("index {}: ", entry.key);
    if (entry.kind == Entry::Kind::kDetail) {
      if (++alike_[{entry.code, entry.key}] > most_) return;
      put(fmt::format("    {}{}: {}\n", index, entry.text, told(entry.fields)));
      return;
    }
    end_flood(entry.code, entry.key);
    const char* const step = entry.kind == Entry::Kind::kStep ? "repair: " : "";
    put(fmt::format("  {}{}{}\n", step, index, entry.text));
  }
  void pair_ends(Status /*status*/, const std::string& text, const Fields& fields) override {
    while (!alike_.empty()) {
      const auto [code, key] = alike_.begin()->first;
      end_flood(code, key);
    }
    if (!fields.empty()) put(fmt::format("  {}\n", told(fields)));
    put(fmt::format("{}: {}\n", name_, text));
    std::fflush(stdout);
  }
  void end(Status /*status*/, const Fields& fields) override {
    if (std::get<std::int64_t>(fields.front().second) > 1) put(told(fields) + '\n');
  }

 private:
  static void put(const std::string& text) {
    erase_progress();
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  void end_flood(const std::string& code, int key) {
    const auto at = alike_.find({code, key});
    if (at == alike_.end()) return;
    if (at->second > most_) put(fmt::format("    ... and {} more\n", at->second - most_));
    alike_.erase(at);
  }

  int most_;
  std::string name_;
  std::map<std::pair<std::string, int>, int> alike_;  // details told of a code and an index
};

}  // namespace

std::unique_ptr<Report> text_report(bool is_terminal) {
  return std::make_unique<TextReport>(is_terminal);
}

}  // namespace zentra
