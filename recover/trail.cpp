#include "recover/trail.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <vector>

#include "isam/log/audit.h"
#include "recover/plainfile.h"
#include "recover/text.h"
#include "recover/words.h"

namespace recover {
namespace {

using common::ConstBytes;
using isam::txlog::AuditLetter;
namespace entry = isam::txlog::audit_entry;

constexpr std::size_t kWindow = 262144;  // several times the longest entry
constexpr std::int64_t kNewline = 1;

using Words = Word<AuditLetter>;
constexpr std::array kWords = {
    Words{AuditLetter::kAdded, "added"},
    Words{AuditLetter::kDeleted, "deleted"},
    Words{AuditLetter::kBefore, "before"},
    Words{AuditLetter::kAfter, "after"},
};

// What the listing calls the operation of a letter; null for any other byte.
const char* words_of(common::Byte letter) {
  return word_for(kWords, AuditLetter{static_cast<char>(letter)});
}

// A file through one buffer, read forwards.
class Window {
 public:
  explicit Window(const PlainFile& file) : file_(file) {}

  // `length` bytes at `offset`, at most kWindow; fewer at the end of the file or if reading failed.
  // They stand there until the next call.
  ConstBytes at(std::int64_t offset, std::int64_t length) {
    length = std::min(length, std::max<std::int64_t>(file_.size - offset, 0));
    if (offset < start_ || offset + length > start_ + static_cast<std::int64_t>(filled_)) {
      const ssize_t got = common::read_at(file_.fd.get(), buffer_, offset);
      failed_ = failed_ || got < 0;
      start_ = offset;
      filled_ = got < 0 ? 0 : static_cast<std::size_t>(got);
    }
    const auto skipped = static_cast<std::size_t>(offset - start_);
    return ConstBytes{buffer_}.subspan(
        skipped, std::min(static_cast<std::size_t>(length), filled_ - skipped));
  }
  [[nodiscard]] bool failed() const { return failed_; }
  [[nodiscard]] std::int64_t size() const { return file_.size; }

 private:
  const PlainFile& file_;
  std::vector<common::Byte> buffer_ = std::vector<common::Byte>(kWindow);
  std::int64_t start_ = 0;
  std::size_t filled_ = 0;
  bool failed_ = false;
};

struct Entry {
  ConstBytes bytes;             // all of it; empty when there is no sound one
  const char* wrong = nullptr;  // why there is none
};

class TrailListing {
 public:
  TrailListing(const PlainFile& file, TrailFormat format, bool dump)
      : window_(file), format_(format), dump_(dump) {}

  Status run() {
    print("    offset  what     process  user  time                  record\n");
    std::int64_t offset = 0;
    while (offset < window_.size() && !window_.failed()) {
      const Entry found = entry_at(offset);
      if (found.wrong == nullptr) {
        show(found.bytes, offset);
        offset += static_cast<std::int64_t>(found.bytes.size());
      } else {
        offset = pass_by(offset, found.wrong);
      }
    }
    return finish();
  }

 private:
  [[nodiscard]] int header_size() const {
    return format_.variable ? entry::kVariableHeader : entry::kFixedHeader;
  }

  Entry entry_at(std::int64_t offset) {
    constexpr Entry kTorn{{}, "the trail ends with a part of an entry"};
    const ConstBytes header = window_.at(offset, header_size());
    // An entry begins with the letter of its operation, twice. The file may end behind the first.
    const auto letters = header.first(std::min<std::size_t>(header.size(), 2));
    const auto is_wrong = [&](common::Byte letter) {
      return words_of(letter) == nullptr || letter != letters.front();
    };
    if (std::ranges::any_of(letters, is_wrong)) return {{}, "no operation has these letters"};
    if (header.size() < static_cast<std::size_t>(header_size())) return kTorn;
    if (common::ldlong(&header[entry::kNumber]) <= 0) return {{}, "no record has this number"};
    // The length that is stored counts the newline; `length` does not.
    const int length =
        format_.variable ? common::ldword(&header[entry::kLength]) - 1 : format_.length;
    if (length < 0 || length > format_.length) return {{}, "no record has this length"};
    const std::int64_t whole = header_size() + length + kNewline;
    const ConstBytes bytes = window_.at(offset, whole);
    if (bytes.size() < static_cast<std::size_t>(whole)) return kTorn;
    if (bytes.back() != '\n') return {{}, "no newline ends the entry"};
    return {bytes, nullptr};
  }

  // Tells what is wrong at `offset`; the offset of the next sound entry, or the end of the trail.
  std::int64_t pass_by(std::int64_t offset, const char* wrong) {
    std::int64_t next = offset + 1;
    while (next < window_.size() && !window_.failed() && entry_at(next).wrong != nullptr) ++next;
    print("damaged at offset " + std::to_string(offset) + ": " + wrong + "; " +
          std::to_string(next - offset) + " bytes passed by\n");
    ++damages_;
    return next;
  }

  void show(ConstBytes bytes, std::int64_t offset) {
    const common::Byte letter = bytes[entry::kLetters];
    const auto header = static_cast<std::size_t>(header_size());
    const ConstBytes record = bytes.subspan(header, bytes.size() - header - kNewline);
    const auto time = static_cast<std::uint32_t>(common::ldlong(&bytes[entry::kTime]));
    std::array<char, 128> line{};
    std::snprintf(line.data(), line.size(), "%10lld  %-8s %7d %5d  %s  %d, %zu bytes\n",
                  static_cast<long long>(offset), words_of(letter),
                  common::ldword(&bytes[entry::kProcess]), common::ldword(&bytes[entry::kUser]),
                  time_text(time).c_str(), common::ldlong(&bytes[entry::kNumber]), record.size());
    print(line.data());
    if (dump_) print(dump_text(record));
    ++counts_[AuditLetter{static_cast<char>(letter)}];
  }

  Status finish() {
    if (window_.failed()) {
      complain("the trail cannot be read");
      return Status::kFailed;
    }
    print("\nentries " + counts_text(kWords, counts_) + "\n");
    if (damages_ == 0) return Status::kAll;
    print("damages " + std::to_string(damages_) + "\n");
    return Status::kSome;
  }

  Window window_;
  TrailFormat format_;
  bool dump_;
  std::map<AuditLetter, std::int64_t> counts_;
  std::int64_t damages_ = 0;
};

// What a pair tells of its trail.
struct Pair {
  TrailFormat format;  // of the pair's records, and so of those in the trail
  std::string trail;   // empty when it has none
};

// Either file of the pair stands for it.
std::string base_of(std::string name) {
  if (name.ends_with(".dat") || name.ends_with(".idx")) name.resize(name.size() - 4);
  return name;
}

std::optional<Pair> ask_pair(const std::string& name) {
  const int isfd = isopen(name.c_str(), ISINPUT + ISMANULOCK + ISANYLENGTH);
  dictinfo info{};
  std::array<char, isam::txlog::kMaxTrailName + 1> trail{};
  if (isfd < 0 || isdictinfo(isfd, &info) != 0) {
    complain("cannot open pair " + quoted(name) + ": " + code_text(iserrno));
    return std::nullopt;
  }
  Pair pair{{(info.di_nkeys & DI_VARLEN) != 0, info.di_recsize}, {}};
  if (isaudit(isfd, trail.data(), AUDGETNAME) == 0) pair.trail = trail.data();
  iscleanup();
  return pair;
}

// A pair holds its trail's name as the programs gave it: a relative one starts from the folder in
// which they ran, which the option names.
bool go_to(const std::string& folder) {
  if (folder.empty() || ::chdir(folder.c_str()) == 0) return true;
  complain_errno("cannot work in", folder);
  return false;
}

}  // namespace

Status list_trail(const Options& options) {
  // What of format and path the command line does not give, the pair does.
  std::optional<TrailFormat> format = options.format;
  std::string path = options.trail;
  if (!format) {
    const auto pair = ask_pair(base_of(options.file));
    if (!pair) return Status::kFailed;
    format = pair->format;
    if (path.empty()) {
      if (pair->trail.empty()) {
        complain("the pair " + quoted(options.file) + " has no audit trail");
        return Status::kFailed;
      }
      path = pair->trail;
      if (!go_to(options.folder)) return Status::kFailed;
    }
  }
  const PlainFile file = open_plain(path);
  return file.fd ? TrailListing{file, *format, options.dump}.run() : Status::kFailed;
}

}  // namespace recover
