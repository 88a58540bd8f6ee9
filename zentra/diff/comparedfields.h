// comparedfields: what of the records of two pairs is compared, field by field.
//
// Records of one shape (the same lengths) are compared as a whole, byte by byte; their fields only
// tell where they differ. Of records of different shapes the fields are compared whose names both
// layouts have: their bytes where both are stored alike, else their values.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "isam/base/format.h"
#include "layout/layout.h"

namespace zentra {

class ComparedFields {
 public:
  // Of records of this length, with or without a tail. Bytes that no field has make fields of their
  // own.
  ComparedFields(layout::Fields fields, int record_length, bool has_tail);
  ComparedFields(const layout::Fields& a, int length_of_a, const layout::Fields& b,
                 int length_of_b);

  [[nodiscard]] bool is_of_one_shape() const { return is_of_one_shape_; }
  // The names of fields that only the first, or only the second layout has.
  [[nodiscard]] const std::vector<std::string>& only_in(int side) const {
    return only_in_[static_cast<std::size_t>(side)];
  }
  // Appends the bytes that are the same for two records, one of each pair, exactly when nothing
  // that is compared differs.
  void put(int side, isam::ConstBytes record, std::vector<isam::Byte>& to) const;

  struct Difference {
    const layout::Field& field;  // of the first pair
    isam::ConstBytes was;
    const layout::Field& other;
    isam::ConstBytes is;
  };
  void differences(isam::ConstBytes a, isam::ConstBytes b,
                   const std::function<void(const Difference&)>& tell) const;

 private:
  struct Both {
    layout::Field fields[2];
    bool are_stored_alike = true;
  };

  [[nodiscard]] isam::ConstBytes bytes_of(const Both& both, int side,
                                          isam::ConstBytes record) const;

  std::vector<Both> both_;
  int lengths_[2];
  bool is_of_one_shape_;
  std::vector<std::string> only_in_[2];
};

}  // namespace zentra
