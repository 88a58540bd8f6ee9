#include "scan.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace zentra_module {
namespace py = pybind11;
namespace {

// Bytes that are read in one call: enough for threads not to wait for each other all the time.
constexpr std::size_t kPortion = std::size_t{1} << 20;
constexpr std::size_t kBlock = std::size_t{12} << 10;  // that the fastest cache has, with columns
constexpr std::size_t kSlice = std::size_t{64} << 20;  // between two looks for signals
constexpr std::size_t kPerThread = std::size_t{4} << 20;  // below that another one does not pay
constexpr std::size_t kMostThreads = 4;

// Writes to the first of some elements on each large page. The system clears a page at the first
// write to it; two threads that come to it at the same time would both clear one.
void claim_pages(const Room& room, std::size_t first, std::size_t count) {
  constexpr std::uintptr_t kPage = std::uintptr_t{2} << 20;
  if (room.stride <= 0) return;
  const auto stride = static_cast<std::uintptr_t>(room.stride);
  for (std::size_t i = first; i < first + count;) {
    std::byte* const element = room.first + i * stride;
    *const_cast<volatile std::byte*>(element) = {};
    const std::uintptr_t left = kPage - reinterpret_cast<std::uintptr_t>(element) % kPage;
    i += (left + stride - 1) / stride;
  }
}

}  // namespace

BadValue::BadValue(const std::string& pair, std::int32_t record, std::string field,
                   std::string bytes)
    : Failed(pair, 0, "a field has no value of its meaning"),
      number(record),
      field_name(std::move(field)),
      value(std::move(bytes)) {}

Scan::Scan(Open& open, std::vector<Column> columns, bool has_numbers, std::int32_t first,
           std::int32_t last)
    : open_(open),
      columns_(std::move(columns)),
      has_numbers_(has_numbers),
      first_(std::max(first, 1)),
      last_(last),
      at_end_(last < first_) {
  for (const Column& column : columns_) {
    if (column.field().is_tail || column.field().offset < 0 ||
        column.field().end() > open.least()) {
      throw py::value_error("the field " + column.field().name + " lies beyond the records");
    }
  }
}

Scan::Portion::Portion(std::size_t length)
    : records(std::max(kPortion, length)),
      numbers(records.size() / length),
      lengths(numbers.size()) {}

std::vector<Room> Scan::rooms_of(const std::vector<py::array>& arrays, std::size_t at,
                                 std::size_t room) const {
  if (arrays.size() != columns_.size() + (has_numbers_ ? 1 : 0)) {
    throw py::value_error("not as many arrays as columns");
  }
  std::vector<Room> rooms;
  for (std::size_t i = 0; i < arrays.size(); ++i) {
    py::array array = arrays[i];
    const std::size_t width = i < columns_.size() ? columns_[i].width() : sizeof(std::int32_t);
    const bool fits = array.ndim() == 1 && array.writeable() &&
                      static_cast<std::size_t>(array.itemsize()) == width &&
                      at <= static_cast<std::size_t>(array.shape(0)) &&
                      room <= static_cast<std::size_t>(array.shape(0)) - at;
    if (!fits) throw py::value_error("array " + std::to_string(i) + " does not fit its column");
    auto* const first = static_cast<std::byte*>(array.mutable_data());
    const auto stride = static_cast<std::ptrdiff_t>(array.strides(0));
    rooms.push_back({first + stride * static_cast<std::ptrdiff_t>(at), stride});
  }
  return rooms;
}

// The next records: how many. In turn.
std::size_t Scan::read(Portion& portion, std::size_t most) {
  const std::lock_guard in_library(library_guard());
  const int isfd = open_.number();
  if (!has_begun_) {
    keydescr order{};
    isrecnum = first_;
    if (isstart(isfd, &order, 0, portion.records.data(), RD_GTEQ) < 0) {
      if (iserrno != ISEEND && iserrno != ISENORECORD) throw Failed(open_.name());
      return 0;
    }
    has_begun_ = true;
  }
  recordset set{.count = static_cast<std::int32_t>(std::min(most, portion.numbers.size())),
                .records = portion.records.data(),
                .size = portion.records.size(),
                .numbers = portion.numbers.data(),
                .lengths = portion.lengths.data()};
  auto got = static_cast<std::size_t>(open_.read_into(set, RD_NEXT));
  while (got > 0 && portion.numbers[got - 1] > last_) --got;
  return got;
}

// Several threads read one portion after the other, each as soon as it has turned its last one, and
// one at a time has the system give it memory for that. What fails first in the order of the
// records is told, when all before it are in their places.
std::size_t Scan::fill_together(const Target& target, std::size_t done, std::size_t most) {
  std::mutex reading;
  std::mutex claiming;
  std::size_t taken = 0;
  std::exception_ptr failure;
  std::size_t failed_at = 0;
  const auto length = static_cast<std::size_t>(open_.length());
  const auto work = [&] {
    std::size_t from = 0;
    try {
      Portion portion(length);
      while (true) {
        std::size_t got = 0;
        {
          const std::lock_guard turn_to_read(reading);
          if (at_end_ || failure || taken == most) return;
          from = taken;
          got = read(portion, most - taken);
          taken += got;
          at_end_ = got == 0;
        }
        {
          const std::lock_guard turn_to_claim(claiming);
          for (const Room& room : target.rooms) claim_pages(room, done + from, got);
        }
        turn(portion, got, target, done + from);
      }
    } catch (...) {
      const std::lock_guard turn_to_tell(reading);
      if (!failure || from < failed_at) {
        failure = std::current_exception();
        failed_at = from;
      }
    }
  };
  {
    const std::size_t useful = most * length / kPerThread;
    const std::size_t count = std::min<std::size_t>(
        {kMostThreads, std::max(std::thread::hardware_concurrency(), 1U), useful});
    std::vector<std::jthread> helpers;
    try {
      while (helpers.size() + 1 < count) helpers.emplace_back(work);
    } catch (const std::system_error&) {  // then fewer do it
    }
    work();
  }
  if (failure) std::rethrow_exception(failure);
  return taken;
}

// How many columns from this one on are copies that lie side by side here and there, as one.
std::size_t Scan::copies_from(std::size_t first, const std::vector<Room>& rooms) const {
  std::size_t end = first;
  while (end < columns_.size() && columns_[end].is_copy()) {
    const std::ptrdiff_t apart = columns_[end].field().offset - columns_[first].field().offset;
    const bool follows =
        end == first || columns_[end - 1].field().end() == columns_[end].field().offset;
    if (!follows || rooms[end].stride != rooms[first].stride ||
        rooms[end].first != rooms[first].first + apart) {
      break;
    }
    ++end;
  }
  return end - first;
}

void Scan::turn(const Portion& portion, std::size_t count, const Target& target,
                std::size_t done) const {
  const std::size_t block =
      std::max(kBlock / static_cast<std::size_t>(open_.length()), std::size_t{1});
  for (std::size_t first = 0; first < count; first += block) {
    turn_block(portion, first, std::min(block, count - first), target, done + first);
  }
}

void Scan::turn_block(const Portion& portion, std::size_t first, std::size_t count,
                      const Target& target, std::size_t done) const {
  const auto length = static_cast<std::size_t>(open_.length());
  const char* const begin = portion.records.data() + first * length;
  const Records records{
      .first = reinterpret_cast<const unsigned char*>(begin), .stride = length, .count = count};
  const auto from = static_cast<std::ptrdiff_t>(done);
  const auto moved = [&](Room room) { return Room{room.first + room.stride * from, room.stride}; };
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (const std::size_t more = copies_from(i, target.rooms); more > 1) {
      const auto offset = static_cast<std::size_t>(columns_[i].field().offset);
      const auto end = static_cast<std::size_t>(columns_[i + more - 1].field().end());
      copy_bytes(records, offset, end - offset, moved(target.rooms[i]));
      i += more - 1;
      continue;
    }
    const std::size_t put = columns_[i].put(records, moved(target.rooms[i]), target.lenient);
    if (put == count) continue;
    const layout::Field& field = columns_[i].field();
    const char* const bytes = begin + put * length + field.offset;
    throw BadValue(open_.name(), portion.numbers[first + put], field.name,
                   {bytes, static_cast<std::size_t>(field.length)});
  }
  if (!has_numbers_) return;
  const Room room = moved(target.rooms.back());
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(room.first + room.stride * static_cast<std::ptrdiff_t>(i),
                &portion.numbers[first + i], sizeof portion.numbers[first + i]);
  }
}

void Scan::add_tails(const Portion& portion, std::size_t count, py::list& tails) const {
  const auto least = static_cast<std::size_t>(open_.least());
  for (std::size_t i = 0; i < count; ++i) {
    const auto length = std::max(static_cast<std::size_t>(portion.lengths[i]), least);
    const char* const record =
        portion.records.data() + i * static_cast<std::size_t>(open_.length());
    tails.append(py::bytes(record + least, length - least));
  }
}

std::size_t Scan::fill(const std::vector<py::array>& arrays, std::size_t at, std::size_t room,
                       bool lenient, std::optional<py::list> tails) {
  const Target target{.rooms = rooms_of(arrays, at, room), .lenient = lenient};
  const auto length = static_cast<std::size_t>(open_.length());
  const std::size_t slice = std::max(kSlice / length, std::size_t{1});
  Portion portion(length);
  std::size_t done = 0;
  while (done < room && !at_end_) {
    std::size_t got = 0;
    if (tails) {
      {
        const py::gil_scoped_release others_run;
        got = read(portion, room - done);
        turn(portion, got, target, done);
      }
      at_end_ = got == 0;
      add_tails(portion, got, *tails);
    } else {
      const py::gil_scoped_release others_run;
      got = fill_together(target, done, std::min(slice, room - done));
    }
    done += got;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  return done;
}

}  // namespace zentra_module
