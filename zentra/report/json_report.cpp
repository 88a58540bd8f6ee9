#include <cstdio>
#include <nlohmann/json.hpp>

#include "zentra/report/report.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using Json = nlohmann::ordered_json;

Json json_of(const Value& value) {
  if (const auto* bytes = std::get_if<FileBytes>(&value)) {
    Json both{{"hex", hex(bytes->bytes)}};
    if (is_printable(bytes->bytes)) both["text"] = bytes->bytes;
    return both;
  }
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* flag = std::get_if<bool>(&value)) return *flag;
  if (const auto* number = std::get_if<double>(&value)) return *number;
  return std::get<std::int64_t>(value);
}

void add(Json& object, const Fields& fields) {
  for (const auto& [name, value] : fields) object[name] = json_of(value);
}

void put(const Json& object) {
  const std::string line = object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

class JsonReport : public Report {
 public:
  explicit JsonReport(const char* good) : good_(good) {}

  void begin(const char* command, int pairs) override {
    put({{"schema", checker::kSchema}, {"type", "begin"}, {"command", command}, {"pairs", pairs}});
  }
  void pair_begins(int number, int pairs, const std::string& name) override {
    pair_is(number, name);
    put({{"type", "pair"},
         {"pair", number},
         {"pairs", pairs},
         {"name", json_of(FileBytes{.bytes = name})}});
  }
  void pair_is(int number, const std::string& /*name*/) override { number_ = number; }
  void entry(const Entry& entry) override {
    Json object{{"type", checker::name_of(entry.kind)}, {"pair", number_}, {"code", entry.code}};
    if (entry.kind == Entry::Kind::kFinding) object["verdict"] = verdict_of(entry.status);
    if (entry.key != 0) object["index"] = entry.key;
    add(object, entry.fields);
    if (!entry.text.empty()) object["message"] = entry.text;
    put(object);
  }
  void pair_ends(Status status, const std::string& text, const Fields& fields) override {
    Json object{{"type", "pair-end"}, {"pair", number_}};
    add(object, fields);
    object["message"] = text;
    object["status"] = static_cast<int>(status);
    object["verdict"] = verdict_of(status, good_);
    put(object);
  }
  void end(Status status, const Fields& fields) override {
    Json object{{"type", "end"}};
    add(object, fields);
    object["status"] = static_cast<int>(status);
    object["verdict"] = verdict_of(status, good_);
    put(object);
  }

 private:
  const char* good_;
  int number_ = 0;
};

}  // namespace

void print_json(const Fields& fields) {
  Json object;
  add(object, fields);
  put(object);
}

std::unique_ptr<Report> json_report(const char* good) { return std::make_unique<JsonReport>(good); }

}  // namespace zentra
