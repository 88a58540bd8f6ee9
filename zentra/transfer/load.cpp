// zentra load: makes a pair of the records of a text, or adds them to one.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <memory>
#include <utility>

#include "checker/driver.h"
#include "checker/interrupt.h"
#include "checker/jsonline.h"
#include "zentra/command/commands.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"
#include "zentra/transfer/loading.h"

namespace zentra {
namespace {

struct LoadOptions {
  bool json = false;
  bool into = false;
  bool stop = false;
  bool ignore_unknown = false;
  double wait = 10;
  std::string format;
  std::string like;
  std::vector<std::string> keys;
  std::string length;
  std::string layout;
  std::string rejects;
  std::string name;
  std::vector<std::string> file;
};

// What of the command line cannot be; empty for nothing.
std::string usage_fault(const LoadOptions& options) {
  const bool is_raw = options.format == "raw";
  const bool has_keys = !options.keys.empty();
  if (options.into && (has_keys || !options.like.empty() || !options.length.empty())) {
    return "--into takes keys and lengths from the pair";
  }
  if (has_keys && !options.like.empty()) return "--key and --like exclude each other";
  if (!options.like.empty() && !options.length.empty()) return "--length goes with --key";
  if (is_raw && (has_keys || !options.like.empty())) return "a raw text has its own keys";
  return "";
}

LoadRequest request_of(const LoadOptions& options) {
  LoadRequest request{.name = options.name,
                      .file = options.file.empty() ? "" : options.file.front(),
                      .like = options.like,
                      .keys = options.keys,
                      .length = options.length,
                      .layout = options.layout,
                      .rejects = options.rejects,
                      .into = options.into,
                      .stops = options.stop,
                      .unknown = options.ignore_unknown ? Unknown::kIgnored : Unknown::kRefused,
                      .wait = as_time(options.wait)};
  checker::cut_suffix(request.name);
  const std::map<std::string, TextFormat> formats{
      {"jsonl", TextFormat::kJson}, {"csv", TextFormat::kCsv}, {"raw", TextFormat::kRaw}};
  if (!options.format.empty()) request.format = formats.at(options.format);
  return request;
}

// "999,492 loaded, 3 duplicates refused; new.rejects.jsonl tells them"
std::string outcome_text(const Loading& loading) {
  const auto several = [](std::int64_t count, const char* one, const char* more) {
    return fmt::format(", {} {} refused", grouped(count), count == 1 ? one : more);
  };
  std::string text;
  if (loading.why().empty()) {
    text = grouped(loading.loaded()) + " loaded";
    if (loading.duplicates() > 0) text += several(loading.duplicates(), "duplicate", "duplicates");
    if (loading.bad() > 0) text += several(loading.bad(), "line", "lines");
  } else {
    text = "nothing loaded: " + loading.why();
  }
  if (loading.rejects().is_kept()) text += fmt::format("; see {}", shown(loading.rejects().path()));
  return text;
}

const char* load_verdict(Status status) {
  return status == Status::kDamaged ? "refused" : verdict_of(status, kVerdictDone);
}

void put(const checker::JsonLine& line) { std::fputs(line.text().c_str(), stdout); }

void report_json(const LoadRequest& request, const Loading& loading, Status status) {
  constexpr std::int64_t kOne = 1;
  const auto code = static_cast<std::int64_t>(status);
  checker::JsonLine begin;
  begin.add("schema", std::int64_t{checker::kSchema}).add("type", std::string("begin"));
  put(begin.add("command", std::string("load")).add("pairs", kOne));
  const checker::FileBytes name{.bytes = request.name};
  put(checker::JsonLine("pair").add("pair", kOne).add("pairs", kOne).add("name", name));
  for (const std::string& note : loading.notes()) {
    put(checker::JsonLine("note")
            .add("pair", kOne)
            .add("code", std::string("load.note"))
            .add("message", note));
  }
  checker::JsonLine end("pair-end");
  end.add("pair", kOne).add("loaded", loading.why().empty() ? loading.loaded() : 0);
  end.add("duplicates", loading.duplicates()).add("refused", loading.bad());
  if (loading.rejects().is_kept()) {
    end.add("rejects", checker::FileBytes{.bytes = loading.rejects().path()});
  }
  end.add("message", outcome_text(loading)).add("status", code);
  put(end.add("verdict", std::string(load_verdict(status))));
  put(checker::JsonLine("end")
          .add("pairs", kOne)
          .add("status", code)
          .add("verdict", std::string(load_verdict(status))));
}

void report_text(const Loading& loading) {
  for (const std::string& note : loading.notes()) fmt::print(stderr, "zentra: {}\n", note);
  if (loading.why().empty()) {
    fmt::print("{}\n", outcome_text(loading));
  } else {
    fmt::print(stderr, "zentra: {}\n", outcome_text(loading));
  }
}

int run_load(const LoadOptions& options) {
  const std::string fault = usage_fault(options);
  if (!fault.empty()) {
    fmt::print(stderr, "zentra: {}\n", fault);
    return kUsage;
  }
  start_progress();
  const LoadRequest request = request_of(options);
  Status status = Status::kUnfinished;
  {
    const checker::Interrupt interrupt("\ninterrupted; nothing was loaded\n");
    Loading loading{request};
    status = loading.run();
    erase_progress();
    if (options.json) {
      report_json(request, loading, status);
    } else {
      report_text(loading);
    }
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    fmt::print(stderr, "zentra: the report could not be written\n");
  }
  return static_cast<int>(status);
}

}  // namespace

std::function<int()> prepare_load(Arguments& arguments) {
  const auto options = std::make_shared<LoadOptions>();
  arguments.choice("--format", options->format, {"jsonl", "csv", "raw"},
                   "what the text is, where its beginning does not tell");
  arguments.text("--like", options->like, "PAIR", "lengths, keys and layout of this pair");
  arguments.texts("--key", options->keys, "WORDS", "an index, as 8,20,char,dups; zentra-keys(5)");
  arguments.text("--length", options->length, "BYTES",
                 "of a record; LEAST,GREATEST for variable length");
  arguments.text("--layout", options->layout, "FILE", "the fields of a record; zentra-layout(5)");
  arguments.flag("--into", options->into, "add to the pair, which is there");
  arguments.flag("--stop", options->stop, "load nothing where a line is refused");
  arguments.flag("--ignore-unknown", options->ignore_unknown,
                 "pass over columns that are no fields");
  arguments.text("--rejects", options->rejects, "FILE",
                 "where refused lines go (NAME.rejects.jsonl)");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  arguments.words("FILE", options->file, 1, "the text; standard input without it, or for -");
  return [options] { return run_load(*options); };
}

}  // namespace zentra
