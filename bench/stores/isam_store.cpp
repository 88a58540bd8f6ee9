// stores_isam: this library, exclusively open and shared.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/stores/store.h"
#include "isam.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

keydescr primary_key() {
  keydescr key{};
  key.nparts = 1;
  key.part[0] = {0, kKeyLength, KT_CHAR};
  return key;
}

keydescr second_key(int flags) {
  keydescr key{};
  key.flags = static_cast<std::int16_t>(flags);
  key.nparts = 1;
  key.part[0] = {kSecondStart, kSecondLength, KT_CHAR};
  return key;
}

void check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + iserrtext(iserrno));
}

class IsamStore : public Store {
 public:
  IsamStore(int lock_mode, int second_flags)
      : mode_(ISINOUT | lock_mode), second_(second_key(second_flags)) {}

  void open(const fs::path& folder, Start start) override {
    name_ = folder / "records";
    if (start == Start::kFresh) make(name_);
    open_as(mode_);
  }

  void close() override { check(isclose(file_), "isclose"); }

  void insert(const Record& record) override {
    buffer_ = record;
    check(iswrite(file_, buffer_.data()), "iswrite");
  }

  void rewrite(const Record& record) override {
    buffer_ = record;
    check(isrewrite(file_, buffer_.data()), "isrewrite");
  }

  void remove(const Key& key) override {
    std::memcpy(buffer_.data(), key.data(), key.size());
    check(isdelete(file_, buffer_.data()), "isdelete");
  }

  const char* find(const Key& key) override {
    std::memcpy(buffer_.data(), key.data(), key.size());
    if (isread(file_, buffer_.data(), RD_EQUAL) == 0) return buffer_.data();
    if (iserrno != ISENORECORD) check(-1, "isread");
    return nullptr;
  }

  void scan(Order order, Reader& reader) override {
    start(order == Order::kPrimary ? primary_ : second_);
    while (isread(file_, buffer_.data(), RD_NEXT) == 0) reader.take(buffer_.data());
    if (iserrno != ISEEND) check(-1, "isread");
    start(primary_);
  }

  [[nodiscard]] bool has_bulk() const override { return true; }

  void insert_many(std::span<const Record> records) override {
    recordset set = set_of(records.size());
    std::memcpy(many_.data(), records.data(), records.size_bytes());
    check_all(iswritemany(file_, &set), set, "iswritemany");
  }

  void find_many(std::span<const Key> keys, Reader& reader) override {
    recordset set = set_of(keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
      std::memcpy(many_[i].data(), keys[i].data(), keys[i].size());
    }
    check_all(isfetchmany(file_, &set, RD_EQUAL), set, "isfetchmany");
    for (std::size_t i = 0; i < keys.size(); ++i) reader.take(many_[i].data());
  }

  void scan_many(Order order, Reader& reader) override {
    start(order == Order::kPrimary ? primary_ : second_);
    recordset set = set_of(kBulk);
    int got = 0;
    while ((got = isreadmany(file_, &set, RD_NEXT)) > 0) {
      for (int i = 0; i < got; ++i) reader.take(many_[static_cast<std::size_t>(i)].data());
    }
    if (iserrno != ISEEND) check(-1, "isreadmany");
    start(primary_);
  }

  [[nodiscard]] bool has_load() const override { return true; }

  // The load needs an exclusive open, whatever follows.
  void begin_load() override {
    close();
    open_as(ISINOUT | ISEXCLLOCK);
    check(isloadbegin(file_), "isloadbegin");
  }

  void load(std::span<const Record> records) override {
    recordset set = set_of(records.size());
    std::memcpy(many_.data(), records.data(), records.size_bytes());
    check_all(isload(file_, &set), set, "isload");
  }

  void end_load() override {
    check(isloadend(file_, nullptr, 0), "isloadend");
    close();
    open_as(mode_);
  }

  void settle() override { check(isflush(file_), "isflush"); }

 private:
  void open_as(int mode) {
    file_ = isopen(name_.c_str(), mode);
    check(file_, "isopen");
  }

  void start(keydescr& key) { check(isstart(file_, &key, 0, buffer_.data(), RD_FIRST), "isstart"); }

  // Of so many records at most kBulk.
  recordset set_of(std::size_t records) {
    return {static_cast<int32_t>(records), many_[0].data(), sizeof many_, numbers_.data(),
            lengths_.data()};
  }

  static void check_all(int done, const recordset& set, const char* what) {
    if (done != set.count) check(-1, what);
  }

  void make(const std::string& name) {
    const int file = isbuild(name.c_str(), kRecordLength, &primary_, ISINOUT | ISEXCLLOCK);
    check(file, "isbuild");
    check(isaddindex(file, &second_), "isaddindex");
    check(isclose(file), "isclose");
  }

  int mode_;
  std::string name_;
  keydescr primary_ = primary_key();
  keydescr second_;
  int file_ = -1;
  Record buffer_{};
  std::array<Record, kBulk> many_{};
  std::array<int32_t, kBulk> numbers_{};
  std::array<int32_t, kBulk> lengths_{};
};

// The flags of the secondary key for letters such as "dlt".
int compression(std::string_view letters) {
  int flags = 0;
  for (const char letter : letters) {
    switch (letter) {
      case 'd':
        flags |= KF_DCOMPRESS;
        break;
      case 'l':
        flags |= KF_LCOMPRESS;
        break;
      case 't':
        flags |= KF_TCOMPRESS;
        break;
      default:
        throw std::invalid_argument("the letters d, l and t are wanted");
    }
  }
  return flags;
}

// Takes `--compress LETTERS` out of the arguments, at the end of them.
int take_compression(int& argc, const char* const* argv) {
  if (argc < 3 || std::string_view(argv[argc - 2]) != "--compress") return KF_COMPRESS;
  argc -= 2;
  return compression(argv[argc + 1]);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  setenv("ISAMBUFS", "32766", 0);
  int flags = 0;
  try {
    flags = KF_DUPS | bench::take_compression(argc, argv);
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "--compress: %s\n", error.what());
    return EXIT_FAILURE;
  }
  const auto kind = [flags](int lock_mode) {
    return [=] { return std::make_unique<bench::IsamStore>(lock_mode, flags); };
  };
  return bench::run_stores(
      argc, argv,
      {{"isam-exclusive", false, kind(ISEXCLLOCK)}, {"isam-shared", true, kind(ISMANULOCK)}});
}
