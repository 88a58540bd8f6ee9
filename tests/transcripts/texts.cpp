#include "tests/transcripts/texts.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "checker/findings.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
  std::ifstream file(path);
  std::ostringstream all;
  all << file.rdbuf();
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return all.str();
}

template <typename Visit>
void for_each_file(const fs::path& folder, Visit visit) {
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) visit(entry.path());
  }
}

// ---- What can be printed: the string literals of the program, those of one text put together.

// A literal from its opening quote on, and the place behind it.
std::string take_literal(const std::string& source, std::size_t& at) {
  std::string text;
  while (at < source.size() && source[at] == '"') {
    for (++at; source[at] != '"'; ++at) {
      if (source[at] == '\\') {
        ++at;
        text += source[at] == 'n' ? '\n' : source[at];
      } else {
        text += source[at];
      }
    }
    at = source.find_first_not_of(" \n", at + 1);
  }
  return text;
}

std::vector<std::string> literals(const std::string& source) {
  std::vector<std::string> all;
  for (std::size_t at = 0; at < source.size();) {
    if (source.compare(at, 2, "//") == 0 || source[at] == '#') {
      at = source.find('\n', at);
    } else if (source[at] == '\'') {
      at += source[at + 1] == '\\' ? 4 : 3;
    } else if (source[at] == '"') {
      all.push_back(take_literal(source, at));
    } else {
      ++at;
    }
  }
  return all;
}

// Line by line; outside of the table of messages what has several words.
std::set<std::string> printable_texts() {
  std::set<std::string> texts;
  for_each_file(KESTRO_CHECKER, [&](const fs::path& path) {
    const bool is_table = path.filename() == "messages.cpp";
    for (const std::string& literal : literals(contents(path))) {
      std::istringstream lines(literal);
      for (std::string text; std::getline(lines, text);) {
        const bool has_words = text.find(' ', text.find_first_not_of(" ;:,")) < text.size() - 1;
        const bool has_letters = std::ranges::any_of(text, [](char c) { return c >= 'a'; });
        if (has_letters && (is_table || has_words)) texts.insert(text);
      }
    }
  });
  // What answers do is said by the manual.
  for (const checker::QuestionText& question : checker::question_texts()) {
    texts.erase(question.yes);
    texts.erase(question.no);
  }
  return texts;
}

// ---- What is printed.

// The pieces of a text between what is filled in.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> all = {""};
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      all.back() += text[i];
      continue;
    }
    if (text[++i] == '%') {
      all.back() += '%';
      continue;
    }
    i = std::min(text.find_first_of("dfosx", i), text.size());
    all.emplace_back();
  }
  return all;
}

struct Span {
  std::size_t begin;
  std::size_t end;
};

// Where in a line the pieces of a text stand first; nowhere when one is missing.
std::vector<Span> find(const std::vector<std::string>& text, const std::string& line) {
  std::vector<Span> found;
  std::size_t at = 0;
  for (const std::string& piece : text) {
    if (piece.empty()) continue;
    at = line.find(piece, at);
    if (at == line.npos) return {};
    found.push_back({at, at + piece.size()});
    at += piece.size();
  }
  return found;
}

// Texts that stand in a line, but not within a piece of a longer one there.
void mark_shown(const std::string& line,
                const std::map<std::string, std::vector<std::string>>& texts,
                std::set<std::string>& shown) {
  std::map<std::string, std::vector<Span>> found;
  for (const auto& [text, its_pieces] : texts) {
    if (auto spans = find(its_pieces, line); !spans.empty()) found.emplace(text, spans);
  }
  for (const auto& entry : found) {
    const Span own{entry.second.front().begin, entry.second.back().end};
    const bool within = std::ranges::any_of(found, [&](const auto& other) {
      return std::ranges::any_of(other.second, [&](const Span& its) {
        return its.begin <= own.begin && own.end <= its.end &&
               own.end - own.begin < its.end - its.begin;
      });
    });
    if (!within) shown.insert(entry.first);
  }
}

std::set<std::string> shown_texts(const fs::path& pairs, const std::set<std::string>& texts) {
  std::set<std::string> lines;
  for_each_file(pairs, [&](const fs::path& path) {
    if (path.filename() != "first" && path.filename() != "second") return;
    std::istringstream printed(contents(path));
    for (std::string line; std::getline(printed, line);) lines.insert(line);
  });
  std::map<std::string, std::vector<std::string>> all;
  for (const std::string& text : texts) all.emplace(text, pieces(text));
  std::set<std::string> shown;
  for (const std::string& line : lines) mark_shown(line, all, shown);
  return shown;
}

// ---- The list.

// Rows such as | `text` | `Suite.Test` |
std::map<std::string, std::string> listed_texts(const fs::path& pairs) {
  std::map<std::string, std::string> listed;
  std::istringstream list(contents(pairs / "README.md"));
  bool inside = false;
  for (std::string line; std::getline(list, line);) {
    if (line.starts_with("## ")) inside = line == "## Texts that no pair shows";
    if (!inside || !line.starts_with("| `")) continue;
    const std::size_t middle = line.find("` | `");
    listed[line.substr(3, middle - 3)] = line.substr(middle + 5, line.rfind('`') - middle - 5);
  }
  return listed;
}

bool is_test(const std::string& name, const std::string& sources) {
  const std::size_t dot = name.find('.');
  return sources.find('(' + name.substr(0, dot) + ", " + name.substr(dot + 1) + ')') !=
         sources.npos;
}

}  // namespace

std::vector<std::string> texts_not_shown(const std::string& pairs) {
  const std::set<std::string> texts = printable_texts();
  const std::set<std::string> shown = shown_texts(pairs, texts);
  const std::map<std::string, std::string> listed = listed_texts(pairs);
  std::string sources;
  for_each_file(KESTRO_TESTS, [&](const fs::path& path) {
    if (path.extension() == ".cpp") sources += contents(path);
  });
  std::vector<std::string> told;
  for (const std::string& text : texts) {
    if (shown.contains(text) || listed.contains(text)) continue;
    told.push_back("no transcript shows \"" + text + "\"");
  }
  for (const auto& [text, test] : listed) {
    if (!texts.contains(text)) told.push_back("the list has a text too many: \"" + text + '"');
    if (shown.contains(text)) told.push_back("a transcript shows \"" + text + '"');
    if (!is_test(test, sources)) told.push_back("there is no test " + test);
  }
  return told;
}

}  // namespace testing_support
