// make_corpus: the inputs that fuzzing starts from, one file each: in the folder "pairs" small
// damaged pairs of many node sizes, fixed and variable in length; in "logs" logs to be replayed; in
// "listings" logs, error logs and audit trails; in "layouts" layouts, also with a record behind
// them; in "texts" what `zentra load` reads.
//
//   make_corpus FOLDER
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "fuzz/log_input.h"
#include "tests/support/damaged_pair.h"
#include "tests/support/log_words.h"
#include "tests/support/logged_pairs.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"
#include "tests/support/tables.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

void add_seed(const fs::path& folder, Image first, const Image& rest) {
  static int number = 0;
  first.insert(first.end(), rest.begin(), rest.end());
  write_file(folder / std::to_string(number++), first);
}

void write_pairs(const fs::path& folder) {
  constexpr int kPairs = 48;
  constexpr int kMostRecords = 30;
  fs::create_directories(folder);
  for (int number = 0; number < kPairs; ++number) {
    write_damaged_pair(number, "pair", kMostRecords);
    Image index = read_file("pair.idx"), data = read_file("pair.dat"), length(4);
    put4(length.data(), std::ssize(index));
    index.insert(index.end(), data.begin(), data.end());
    index.push_back(static_cast<Byte>((number + number / 8) % 8));  // the options
    add_seed(folder, length, index);
  }
}

void write_logs(const fs::path& recovery, const fs::path& listings) {
  constexpr Byte kModes = 4;
  // Of all kinds of records, of both pairs.
  std::vector<std::string> logs = {
      "A[ A+20:20.1 A*20:20.1>20.2 A-1:1.0 Ao4:varying A+9:9.0+700 A*2:2.0+200>2.1+2900 A] A[ "
      "Ax3:pair A-9:9.0+700 A~",
      "a+20:20.1 au7 as50 ax4:pair ab:made ao5:made a+1:2.0 a+2:1.0 ai ac ad ax5:made "
      "ar:made>other ae:other",
      "a+1:1.0 am:insert\x1B ac am:cluster"};
  logs.push_back(logs[0] + ' ' + logs[1]);
  for (const auto& row : read_table(KESTRO_TESTS "/txlog/evidence.txt")) {
    logs.push_back(row[1]);
  }
  fs::create_directories(recovery);
  fs::create_directories(listings);
  for (const std::string& words : logs) {
    Image log = log_of(words);
    log.erase(log.begin(), log.begin() + 4);
    for (Byte mode = 0; mode < kModes; ++mode) add_seed(recovery, {mode}, log);
    for (const Byte how : {Byte{0}, fuzz::listing::kDump}) add_seed(listings, {how}, log);
  }
  for (const bool varying : {false, true}) {
    build_pair("audited", varying, 3);
    std::array<char, 128> name{"trail"};
    const int isfd = sure(open_pair("audited", varying, ISMANULOCK));
    sure(isaudit(isfd, name.data(), AUDSETNAME));
    sure(isaudit(isfd, name.data(), AUDSTART));
    for (int id = 2; id <= 6; ++id) {
      std::string record = row(id, 1, varying ? id * 50 : 0);
      if (add(isfd, record) != 0) sure(isrewrite(isfd, record.data()));
    }
    sure(isdelrec(isfd, 1));
    sure(isclose(isfd));
    const int most = (varying ? kMaximum : kMinimum) - 1;
    for (const Byte dump : {Byte{0}, fuzz::listing::kDump}) {
      const int how = fuzz::listing::kTrail | dump | (varying ? fuzz::listing::kVariable : 0);
      add_seed(listings,
               {static_cast<Byte>(how), static_cast<Byte>(most >> 8), static_cast<Byte>(most)},
               read_file("trail"));
    }
    sure(iserase("audited"));
  }
}

void write_layouts(const fs::path& folder) {
  fs::create_directories(folder);
  for (const std::string text :
       {"# all\nid char 0 8\nname locale next 20 blanks null # comment\nrest bytes next 3\n",
        "born char 4 10 date DD.MM.YYYY\ndue long next date YYYYMMDD\nday int 0 date since "
        "1899-12-31\n",
        "encoding latin1\nname char 0 9\nother char next 8 encoding CP850\nnotes char tail\n",
        "amount long 0 4 decimal 2\nactive char 8 5 boolean \"y #\"\"\" no\nrate double 16 null\n"
        "share float next\nnotes char tail\n"}) {
    add_seed(folder, {}, {text.begin(), text.end()});
    const std::string with_record = text + '\0' + "00000001SMITH, J.  \"x\"22.11.2026\n\xFF\xFF";
    add_seed(folder, {}, {with_record.begin(), with_record.end()});
  }
}

void write_texts(const fs::path& folder) {
  fs::create_directories(folder);
  for (const std::string text :
       {"zentra-raw 1\nlength 8 40\nnode 512\nduplicates 2\nlocale c\nunique 77\nkey 0,4,char\n"
        "key 4,4,long,desc,dups,compress\nrecords\n2:0002same\\00\\ff\\20\n3:0001same\norder 2 "
        "3 2\nend 2\n",
        "{\"id\":\"a\\u00e9\\ud83d\\ude00\\n\",\"amount\":-12.5e+3,\"open\":true,\"at\":null,"
        "\"raw\":{"
        "\"hex\":\"0aff\"}}"}) {
    add_seed(folder, {}, {text.begin(), text.end()});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus FOLDER\n");
    return EXIT_FAILURE;
  }
  try {
    const fs::path folder = fs::absolute(argv[1]);
    const TempFolder workplace;
    fs::current_path(workplace.path());
    write_pairs(folder / "pairs");
    write_logs(folder / "logs", folder / "listings");
    write_layouts(folder / "layouts");
    write_texts(folder / "texts");
    fs::current_path("/");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
