#include "checker/dialogue.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "checker/progress.h"
#include "isam/current.h"
#include "isam/errors.h"

namespace checker {

Options options;
Tally tally;

namespace {

constexpr int kAnswerRoom = 10;  // nine characters and the end

std::string text_of_filling(const Filling& filling) {
  if (const auto* number = std::get_if<std::int64_t>(&filling)) return std::to_string(*number);
  return std::string(std::get<std::string_view>(filling));
}

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

void err(Message message) {
  pnewline(1);
  put("ERROR: ");
  print_line(message);
}

void errn(Message message, std::int64_t number) {
  pnewline(1);
  put("ERROR: ");
  print_line(message, {number});
}

void remark(const std::string& text) {
  Progress::erase();
  std::fprintf(stderr, "kestro: %s: %s\n", isam::filep->name.c_str(), text.c_str());
}

bool is_of_system(std::int32_t code) { return (code > 0 && code <= 99) || code == isam::kNoMemory; }

void note_system_error() {
  if (is_of_system(iserrno) && tally.system_error == 0) {
    tally.system_error = iserrno == isam::kNoMemory ? ENOMEM : iserrno;
  }
}

void pass_over_error() {
  note_system_error();
  isam::clear_errors();
}

void prterr() {
  if (iserrno == 0) return;
  pnewline(1);
  note_system_error();
  if (iserrno > 99) {
    print_library_error(iserrno);
  } else {
    print_system_error(iserrno, iserrio);
  }
  pnewline(1);
  isam::clear_errors();
}

namespace {

bool answer_to(Message question) {
  print(question);
  if (options.nflag != 0 || options.yflag != 0) {
    const bool yes = options.nflag == 0;
    put(yes ? "yes" : "no");
    pnewline(2);
    return yes;
  }
  for (;;) {
    std::fflush(stdout);
    char answer[kAnswerRoom];
    if (std::fgets(answer, sizeof answer, stdin) == nullptr) return false;
    pnewline(1);
    const int first = std::tolower(static_cast<unsigned char>(answer[0]));
    if (first == 'y') return true;
    if (first == 'n') return false;
    print(Message::kAnswerYesOrNo);
  }
}

}  // namespace

bool ask(Message question) {
  const bool yes = answer_to(question);
  if (!yes) ++tally.declined;
  return yes;
}

}  // namespace checker
