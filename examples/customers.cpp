// customers: a small customer file in C++, the same as customers.c makes.
//
//   customers [NAME]     the pair NAME, "customers" if none is given; made if it is not there
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "isam.hpp"

namespace {

using zentra::File;
using zentra::Key;
using zentra::Lock;
using zentra::Move;
using zentra::Outcome;
using zentra::Record;

constexpr zentra::Text<0, 8> kNumber;
constexpr zentra::Text<8, 24> kName;
constexpr zentra::Text<32, 16> kTown;
constexpr zentra::Int32<48> kOrders;
constexpr int kRecordLength = 52;

constexpr Key kByNumber = Key::of(kNumber);
constexpr Key kByName = Key::of(kName, kOrders).descending().duplicates().compressed();

File open_or_build(const std::string& name) {
  if (auto file = File::open_if_there(name)) return std::move(*file);
  File::build(name, kRecordLength, kByNumber, zentra::Locking::kExclusive).add_index(kByName);
  return File::open(name);
}

void add(File& file, const char* number, const char* name, const char* town, int orders) {
  Record record = file.blank();
  record.set(kNumber, number).set(kName, name).set(kTown, town).set(kOrders, orders);
  if (file.add(record) == Outcome::kDuplicate) std::printf("%s is there already\n", number);
}

void print(const Record& record) {
  std::printf("  %-8s  %-12s %-10s %3d\n", record.get(kNumber).c_str(), record.get(kName).c_str(),
              record.get(kTown).c_str(), record.get(kOrders));
}

// Makes a change to the customer with this number, while no other process can.
template <typename Change>
void with_locked(File& file, const char* number, Change change) {
  const zentra::RecordLocks locks(file);
  auto customer = file.find(kByNumber, number);
  if (!customer) {
    std::printf("%s is not there\n", number);
  } else if (file.read(*customer, Move::kCurrent, Lock::kTry) != Outcome::kDone ||
             change(*customer) != Outcome::kDone) {
    std::printf("%s is in use\n", number);
  }
}

void use_customers(const std::string& name) {
  File file = open_or_build(name);

  add(file, "00000042", "Brandt", "Bergen", 3);
  add(file, "00000007", "Dumas", "Delft", 12);
  add(file, "00000019", "Abel", "Antwerp", 0);
  add(file, "00000023", "Brandt", "Cork", 5);
  add(file, "00000031", "Castro", "Evora", 1);

  std::printf("by name\n");
  for (const Record& record : file.by(kByName)) print(record);
  std::printf("named Brandt\n");
  for (const Record& record : file.by(kByName).equal("Brandt")) print(record);

  with_locked(file, "00000019", [&](Record& record) {
    record.set(kTown, "Bergen").set(kOrders, record.get(kOrders) + 1);
    return file.update(record);
  });
  const auto drop = [&](const Record& record) { return file.remove(record); };
  with_locked(file, "00000031", drop);
  with_locked(file, "00000099", drop);

  std::printf("%d customers after all\n", file.records());
  for (const Record& record : file.by(kByName)) print(record);
  file.close();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    use_customers(argc > 1 ? argv[1] : "customers");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "customers: %s\n", error.what());
    return 1;
  }
  return 0;
}
