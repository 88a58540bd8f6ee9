// The table of findings against the manual, and whole checks that only a listener hears.
#include "checker/findings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "checker/dialogue.h"
#include "checker/driver.h"
#include "locale/collation.h"
#include "tests/support/damage.h"
#include "tests/support/made_records.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

using checker::Code;
using checker::Question;

// What the manual says, without its marks and with one blank between words.
std::string manual() {
  std::ifstream file(KESTRO_MANUAL);
  std::string text;
  for (std::string line; std::getline(file, line);) {
    const bool is_quoted = line.starts_with(".") && line.find('"') != line.npos;
    const bool runs_on = line.starts_with(".BI") || line.starts_with(".IB");
    if (line.starts_with(".")) line.erase(0, std::min(line.size(), line.find(' ') + 1));
    std::string plain;
    bool inside = false;
    for (const char c : line) {
      if (c == '\\' || (is_quoted && c == '"')) inside = !inside;
      const bool joins = runs_on && is_quoted && !inside && c == ' ';
      if (c != '\\' && !(is_quoted && c == '"') && !joins) plain += c;
    }
    text += plain + ' ';
  }
  std::string result;
  std::ranges::unique_copy(text, std::back_inserter(result),
                           [](char a, char b) { return a == ' ' && b == ' '; });
  return result;
}

// In the manual a number is called n.
std::string as_in_manual(std::string wording) {
  if (const auto at = wording.find("%d"); at != wording.npos) wording.replace(at, 2, "n");
  return wording;
}

TEST(Findings, StandInTheManual) {
  const std::string text = manual();
  for (const checker::FindingText& finding : checker::finding_texts()) {
    EXPECT_NE(text.find(as_in_manual(finding.wording)), text.npos) << finding.wording;
  }
  for (const checker::QuestionText& question : checker::question_texts()) {
    const auto at = text.find(question.wording);
    ASSERT_NE(at, text.npos) << question.wording;
    // The next answers behind it: those of several questions stand once.
    EXPECT_NE(text.find(std::string("es ") + question.yes, at), text.npos) << question.wording;
    EXPECT_NE(text.find(std::string("o ") + question.no, at), text.npos) << question.wording;
    EXPECT_FALSE(question.by_default) << question.wording;
  }
  EXPECT_NE(text.find("The end of the input counts as no."), text.npos);
}

// A row as the document has it, without the marks of code.
std::string row_of(std::initializer_list<std::string> cells) {
  std::string row = "|";
  for (const std::string& cell : cells) row += cell.empty() ? " |" : ' ' + cell + " |";
  return row;
}

const std::pair<checker::Number, std::string> kNumbers[] = {
    {&checker::Numbers::record, "record"},
    {&checker::Numbers::node, "node"},
    {&checker::Numbers::key, "key"},
    {&checker::Numbers::found, "found"},
    {&checker::Numbers::expected, "expected"}};

std::string names_of(const checker::CarriedNumbers& numbers) {
  std::string names;
  for (const checker::Number number : numbers) {
    for (const auto& [carried, name] : kNumbers) {
      if (number == carried) names += (names.empty() ? "" : ", ") + name;
    }
  }
  return names;
}

TEST(Findings, StandInTheDocument) {
  std::vector<std::string> listed;
  std::ifstream document(KESTRO_DOCUMENTS "/findings.md");
  for (std::string line; std::getline(document, line);) {
    if (!line.starts_with("| `")) continue;
    std::erase(line, '`');
    listed.push_back(line);
  }
  const char* const sayings[] = {"error", "line", "remark", "collation", "nothing"};
  std::vector<std::string> rows;
  for (const checker::FindingText& finding : checker::finding_texts()) {
    const bool asks = finding.question != Question::kNone;
    rows.push_back(
        row_of({finding.code, sayings[static_cast<int>(finding.saying)], finding.wording,
                names_of(finding.numbers), asks ? checker::text_of(finding.question).code : ""}));
  }
  for (const checker::QuestionText& question : checker::question_texts()) {
    std::string wording = question.wording;
    wording.pop_back();
    rows.push_back(row_of(
        {question.code, wording, question.by_default ? "yes" : "no", question.yes, question.no}));
  }
  EXPECT_EQ(listed, rows);
}

TEST(Findings, HaveACodeOfTheirOwn) {
  std::set<std::string> codes;
  for (const checker::FindingText& finding : checker::finding_texts()) codes.insert(finding.code);
  EXPECT_EQ(codes.size(), checker::finding_texts().size());
}

// Hears a check and answers by a rule.
class Recorder : public checker::Listener {
 public:
  explicit Recorder(bool yes) : yes_(yes) {}
  void found(const checker::Finding& finding) override {
    const checker::FindingText& text = checker::text_of(finding.code);
    ++count;
    errors += text.saying == checker::Saying::kError ? 1 : 0;
    codes.insert(text.code);
    due.insert(text.question);
    for (const auto& [number, name] : kNumbers) {
      const bool carried = finding.numbers.*number != checker::kNotCarried;
      EXPECT_EQ(carried, std::ranges::count(text.numbers, number) == 1) << text.code << name;
    }
  }
  bool answer(Question question) override {
    // A finding has led to it, or the question before.
    const bool expected = question == Question::kRemakeIndex || question == Question::kLockMethod ||
                          due.contains(question);
    EXPECT_TRUE(expected || failures > 0) << checker::text_of(question).code;
    declined += yes_ ? 0 : 1;
    return yes_;
  }
  void failed(std::int32_t code, std::int32_t /*place*/) override {
    EXPECT_NE(code, 0);
    ++failures;
  }

  int count = 0;
  int errors = 0;
  int declined = 0;
  int failures = 0;
  std::set<std::string> codes;
  std::set<Question> due;

 private:
  bool yes_;
};

// All that goes wrong is told by codes alone; nothing is printed, and no file changes unless the
// rule says yes.
TEST(Findings, TellAWholeCheck) {
  ASSERT_EQ(locale::initulx(), 0);
  const TempFolder folder;
  const std::string base = folder / "pair";
  std::set<std::string> met;
  for (std::uint32_t seed = 1; seed <= 100; ++seed) {
    SCOPED_TRACE(seed);
    const BuiltPair built = build_pair(fault_spec(seed % 2 == 0), base);
    PairEditor pair(built);
    Random random(seed);
    for (int damages = 0; damages < 3; ++damages) {
      const auto nodes = static_cast<std::uint32_t>(built.last_node);
      Byte* const node = pair.node(static_cast<std::int32_t>(2 + random(nodes - 1)));
      put4(node + 2 * random(20), random(300));
    }
    *pair.state(1 + static_cast<int>(random(50))) ^= 0x0A;
    pair.save();

    const auto check = [&](bool yes, const checker::Options& options) {
      Recorder heard(yes);
      testing::internal::CaptureStdout();
      const checker::Outcome outcome = checker::ckfile(base, options, heard);
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      EXPECT_EQ(outcome.findings, heard.count);
      EXPECT_EQ(outcome.declined, heard.declined);
      met.insert(heard.codes.begin(), heard.codes.end());
      return heard.errors;
    };
    const int errors = check(false, {.nflag = 1});
    EXPECT_EQ(read_file(base + ".idx"), pair.index);

    testing::internal::CaptureStdout();
    const checker::Options options{.nflag = 1};
    checker::Dialogue dialogue(options);
    checker::ckfile(base, options, dialogue);
    const std::string printed = testing::internal::GetCapturedStdout();
    int lines = 0;
    for (auto at = printed.find("\nERROR: "); at != printed.npos;
         at = printed.find("\nERROR: ", at + 1)) {
      ++lines;
    }
    EXPECT_EQ(lines, errors) << printed;
    check(true, {});
  }
  EXPECT_GE(met.size(), 15U);
}

}  // namespace
}  // namespace testing_support
