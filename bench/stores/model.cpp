#include "bench/stores/model.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace bench {

// Compares what it is shown with the model, byte by byte.
class Verifier : public Reader {
 public:
  explicit Verifier(const Model& model) : model_(model), seen_(model.records(), false) {}

  void take(const char* record) override {
    const std::uint32_t number = number_of(record);
    if (number >= model_.records() || seen_[number]) fault("unknown or repeated key", record);
    seen_[number] = true;
    const std::uint32_t version = model_.versions_[number];
    if ((version & Model::kPresent) == 0) fault("deleted record", record);
    fill(expected_, model_.records(), number, version & ~Model::kPresent);
    if (std::memcmp(record, expected_.data(), kRecordLength) != 0) fault("wrong record", record);
  }

  void demand_all() const {
    for (std::uint32_t number = 0; number < model_.records(); ++number) {
      const bool present = (model_.versions_[number] & Model::kPresent) != 0;
      if (present && !seen_[number]) fault("missing record", key_of(number).data());
    }
  }

 private:
  [[noreturn]] static void fault(const std::string& what, const char* key) {
    throw std::runtime_error(what + ": " + std::string(key, kKeyLength));
  }

  const Model& model_;
  std::vector<bool> seen_;
  Record expected_{};
};

void Model::next(std::uint32_t number, Record& record) {
  skip(number);
  fill(record, records(), number, versions_[number] & ~kPresent);
}

void Model::verify(Store& store) const {
  for (const Order order : {Order::kPrimary, Order::kSecond}) {
    Verifier verifier(*this);
    store.scan(order, verifier);
    verifier.demand_all();
  }
}

}  // namespace bench
