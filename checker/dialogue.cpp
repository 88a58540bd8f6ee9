#include "checker/dialogue.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "checker/progress.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace checker {
namespace {

constexpr std::int32_t kHighestSystemError = 99;  // in iserrno; above it: codes of the library
constexpr int kAnswerRoom = 10;                   // nine characters and the closing zero

std::string text_of_filling(const Filling& filling) {
  if (const auto* number = std::get_if<std::int64_t>(&filling)) return std::to_string(*number);
  return std::string(std::get<std::string_view>(filling));
}

// The text with a filling instead of each % and the letter behind it. A % for which no filling is
// left stays.
std::string filled(std::string_view text, std::initializer_list<Filling> fillings) {
  std::string result;
  const Filling* next = fillings.begin();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && next != fillings.end()) {
      result += text_of_filling(*next++);
      ++i;  // the conversion letter
    } else {
      result += text[i];
    }
  }
  return result;
}

void put(std::string_view text) {
  Progress::erase();
  std::fwrite(text.data(), 1, text.size(), stdout);
}

// A place is an iserrio (isam/base/errors.h): its high four bits tell the operation that failed,
// its low four the kind of file.
const char* operation_word(std::int32_t place) {
  switch (place & 0xF0) {
    case 0x10:
      return "open";
    case 0x20:
      return "creat";
    case 0x30:
      return "lseek";
    case 0x40:
      return "read";
    case 0x50:
      return "write";
    case 0x60:
      return "locking";
    case 0x70:
      return "ioctl";
    default:
      return "";
  }
}

const char* file_word(std::int32_t place) {
  switch (place & 0x0F) {
    case 1:
      return "index";
    case 2:
      return "data";
    case 3:
      return "audit";
    case 4:
      return "lock";
    case 5:
      return "semaphore";
    default:
      return "";
  }
}

// The report has no text for 100, although the table has one.
void print_library_error(std::int32_t code) {
  const bool known = code > 100 && code < isam::is_nerr;
  print(Message::kLibraryError,
        {code, known ? isam::is_errlist(code) : std::string_view(text_of(Message::kUnknownCode))});
}

void print_system_error(std::int32_t code, std::int32_t place) {
  print(Message::kSystemError, {code});
  if (place != 0) {
    print(Message::kSystemErrorPlace,
          {std::string_view(operation_word(place)), std::string_view(file_word(place))});
  }
  put(std::strerror(code));
}

}  // namespace

void print(Message message, std::initializer_list<Filling> fillings) {
  put(filled(text_of(message), fillings));
}

void pnewline(int n) {
  Progress::erase();
  for (int i = 0; i < n; ++i) std::fputc('\n', stdout);
  std::fflush(stdout);
}

void print_line(Message message, std::initializer_list<Filling> fillings) {
  print(message, fillings);
  pnewline(1);
}

namespace {

// Prints "ERROR: " and a finding on a line of its own, behind an empty line.
void err(std::string_view text) {
  pnewline(1);
  put("ERROR: ");
  put(text);
  pnewline(1);
}
// The same, with the number in the place of %d.
void errn(std::string_view text, std::int64_t number) { err(filled(text, {number})); }

}  // namespace

void Dialogue::found(const Finding& finding) {
  const FindingText& text = text_of(finding.code);
  switch (text.saying) {
    case Saying::kError:
      // The report shows at most the first of the numbers that the finding carries.
      if (text.numbers[0] == nullptr) return err(text.wording);
      return errn(text.wording, finding.numbers.*text.numbers[0]);
    case Saying::kLine:
      put(text.wording);
      return pnewline(1);
    case Saying::kCollation:
      pnewline(1);
      put(text.wording);
      pnewline(1);
      print(Message::kFileCollation, {finding.name});
      return pnewline(2);
    case Saying::kRemark:
      return remark(text.wording);
    case Saying::kNothing:
      return;
  }
}

bool Dialogue::answer(Question question) {
  put(text_of(question).wording);
  if (options_.nflag != 0 || options_.yflag != 0) {
    const bool yes = options_.nflag == 0;
    put(yes ? "yes" : "no");
    pnewline(2);
    return yes;
  }
  for (;;) {
    std::fflush(stdout);
    // What does not fit is left in the input and read as the next answer.
    char typed[kAnswerRoom];
    if (std::fgets(typed, sizeof typed, stdin) == nullptr) return text_of(question).by_default;
    pnewline(1);
    const int first = std::tolower(static_cast<unsigned char>(typed[0]));
    if (first == 'y') return true;
    if (first == 'n') return false;
    print(Message::kAnswerYesOrNo);
  }
}

void Dialogue::failed(std::int32_t code, std::int32_t place) {
  pnewline(1);
  if (code > kHighestSystemError) {
    print_library_error(code);
  } else {
    print_system_error(code, place);
  }
  pnewline(1);
}

void Dialogue::remark(const std::string& text) {
  Progress::erase();
  std::fprintf(stderr, "kestro: %s: %s\n", isam::filep->name.c_str(), text.c_str());
}

void Dialogue::begins(Pass pass) {
  switch (pass) {
    case Pass::kDictionary:
      return print_line(Message::kCheckingDictionary);
    case Pass::kDataAllTheSame:
      return print_line(Message::kMustCheckData);
    case Pass::kData:
      return print_line(Message::kCheckingData);
    case Pass::kIndexes:
      return print_line(Message::kCheckingIndexes);
    case Pass::kFreeLists:
      return print_line(Message::kCheckingFreeLists);
  }
}

void Dialogue::fact(Fact fact, std::int64_t value) {
  switch (fact) {
    case Fact::kNodeSize:
      return print_line(Message::kNodeSize, {value});
    case Fact::kCurrentNodeSize:
      return print_line(Message::kCurrentNodeSize, {value});
    case Fact::kOldNodeSize:
      return print_line(Message::kOldNodeSize, {value});
    case Fact::kKeyNodeSize:
      return print_line(Message::kKeyNodeSize, {value});
  }
}

void Dialogue::index_walked(std::int32_t nodes, int levels) {
  print(Message::kNodesUsed, {std::int64_t{nodes}});
  print_line(Message::kLevelsUsed, {std::int64_t{levels}});
}

void Dialogue::mends(Mending what, int n) {
  switch (what) {
    case Mending::kDeletesIndex:
      return print_line(Message::kDeletingIndex, {std::int64_t{n}});
    case Mending::kRemakesIndex:
      return print_line(Message::kRecreatingIndex, {std::int64_t{n}});
    case Mending::kRemakesNodeList:
      return print_line(Message::kRecreatingIndexList);
    case Mending::kRemakesRecordList:
      return print_line(Message::kRecreatingDataList);
  }
}

void Dialogue::ends(const Summary* summary) {
  if (summary != nullptr) {
    shown_ = *summary;
  } else {
    // The check ended before it could count: the report shows the numbers of the pair before once
    // more, all but the free bytes of storage pages.
    shown_.page_bytes_free = 0;
  }
  print(Message::kNodeSummary, {std::int64_t{shown_.nodes_used}, std::int64_t{shown_.nodes_free}});
  print(Message::kRecordSummary,
        {std::int64_t{shown_.records_used}, std::int64_t{shown_.records_free}});
  if (shown_.varlen) {
    pnewline(1);
    print(Message::kStoragePages, {std::int64_t{shown_.pages}});
    if (shown_.pages != 0) {
      pnewline(1);
      print(Message::kStorageFree, {shown_.page_bytes_free, shown_.page_bytes_free / shown_.pages});
    }
  }
  pnewline(2);
}

}  // namespace checker
