// inner_bench: single operations of the library, on a file whose pages all fit the pool.
#include <benchmark/benchmark.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "isam.h"
#include "isam/keys/keys.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRecordLength = 128;
constexpr int kKeyLength = 8;
constexpr std::int32_t kRecords = 20'000;
constexpr std::int32_t kStride = 7919;  // prime, so that steps of it reach every record

using Record = std::array<char, kRecordLength>;

void check(int result) {
  if (result < 0) throw std::runtime_error(iserrtext(iserrno));
}

keydescr primary_key() {
  keydescr key{};
  key.nparts = 1;
  key.part[0] = {0, kKeyLength, KT_CHAR};
  return key;
}

// Decimal digits, as applications have them.
void put_key(Record& record, std::int32_t number) {
  for (std::size_t i = kKeyLength; i-- > 0; number /= 10) {
    record[i] = static_cast<char>('0' + number % 10);
  }
}

// An open file of records 0 to `records` - 1, in a folder of its own, removed at the end.
class OpenFile {
 public:
  explicit OpenFile(int lock_mode, std::int32_t records = kRecords) {
    std::string name = fs::temp_directory_path() / "inner_bench.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    folder_ = name;
    const std::string base = folder_ / "records";
    keydescr key = primary_key();
    file_ = isbuild(base.c_str(), kRecordLength, &key, ISINOUT | ISEXCLLOCK);
    check(file_);
    for (std::int32_t number = 0; number < records; ++number) write(number);
    check(isclose(file_));
    file_ = isopen(base.c_str(), ISINOUT | lock_mode);
    check(file_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    isclose(file_);
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }

  void write(std::int32_t number) {
    put_key(record_, number);
    check(iswrite(file_, record_.data()));
  }

  void remove(std::int32_t number) {
    put_key(record_, number);
    check(isdelete(file_, record_.data()));
  }

  void read(std::int32_t number) {
    put_key(record_, number);
    check(isread(file_, record_.data(), RD_EQUAL));
  }

  // The record after the current one; the first one after the last.
  void read_next() {
    if (isread(file_, record_.data(), RD_NEXT) == 0) return;
    if (iserrno != ISEEND) check(-1);
    check(isread(file_, record_.data(), RD_FIRST));
  }

 private:
  fs::path folder_;
  int file_ = -1;
  Record record_{};
};

void BM_read_by_key(benchmark::State& state) {
  OpenFile file(static_cast<int>(state.range(0)));
  std::int32_t number = 0;
  for (auto _ : state) {
    file.read(number);
    number = (number + kStride) % kRecords;
  }
}
BENCHMARK(BM_read_by_key)->ArgName("lock")->Arg(ISEXCLLOCK)->Arg(ISMANULOCK);

void BM_read_next(benchmark::State& state) {
  OpenFile file(static_cast<int>(state.range(0)));
  for (auto _ : state) file.read_next();
}
BENCHMARK(BM_read_next)->ArgName("lock")->Arg(ISEXCLLOCK)->Arg(ISMANULOCK);

// A record is written and deleted again, so that the file stays as small as it was.
void BM_write_and_delete(benchmark::State& state) {
  OpenFile file(static_cast<int>(state.range(0)));
  std::int32_t number = 0;
  for (auto _ : state) {
    file.write(kRecords + number);
    file.remove(kRecords + number);
    number = (number + kStride) % kRecords;
  }
}
BENCHMARK(BM_write_and_delete)->ArgName("lock")->Arg(ISEXCLLOCK)->Arg(ISMANULOCK);

// Records are added in no order to a file that starts empty; the making of the next file, when one
// is full, is not counted.
void BM_write(benchmark::State& state) {
  auto file = std::make_unique<OpenFile>(ISEXCLLOCK, 0);
  std::int32_t written = 0;
  std::int32_t number = 0;
  for (auto _ : state) {
    if (written == kRecords) {
      state.PauseTiming();
      file.reset();
      file = std::make_unique<OpenFile>(ISEXCLLOCK, 0);
      written = 0;
      state.ResumeTiming();
    }
    file->write(number);
    number = (number + kStride) % kRecords;
    ++written;
  }
}
BENCHMARK(BM_write);

// Two keys of 8 bytes that differ in their last byte, of a character and of a number type.
void BM_compare_keys(benchmark::State& state) {
  const auto type = static_cast<std::int16_t>(state.range(0));
  keydescr key{};
  if (type == KT_CHAR) {
    key = primary_key();
  } else {
    key.nparts = 2;
    key.part[0] = {0, 4, type};
    key.part[1] = {4, 4, type};
  }
  check(isam::kylegal(key, kRecordLength));
  const isam::KeyOrder order(key);
  std::array<isam::Byte, kKeyLength> a{0, 0, 1, 2, 0, 0, 3, 4};
  std::array<isam::Byte, kKeyLength> b = a;
  b.back() = 5;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a.data());
    benchmark::DoNotOptimize(b.data());
    benchmark::DoNotOptimize(order.compare(a.data(), b.data()));
  }
}
BENCHMARK(BM_compare_keys)->ArgName("type")->Arg(KT_CHAR)->Arg(KT_LONG)->Arg(KT_CHAR | KT_DESC);

}  // namespace

int main(int argc, char** argv) {
  setenv("ISAMBUFS", "32766", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}
