#include "zentra/pair/pairlayout.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/records/datafile.h"
#include "layout/draft.h"
#include "zentra/files/textfile.h"
#include "zentra/pair/treewalk.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::filep;

constexpr std::int32_t kSamples = 1000;

void add_keys(layout::Draft& draft) {
  int n = 0;
  for (const keydescr& k : indexes_of_pair()) {
    ++n;
    for (int i = 0; i < k.nparts; ++i) {
      const keypart& part = k.part[i];
      draft.add_key(
          part.start, part.length, layout::type_of_part(part.type),
          k.nparts == 1 ? fmt::format("index {}", n) : fmt::format("index {}, part {}", n, i + 1));
    }
  }
}

// Records from all over the file.
void add_records(layout::Draft& draft) {
  const auto length = static_cast<std::size_t>(filep->geometry.reclen);
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(filep->geometry.maxreclen) + 1);
  const std::int64_t slots = common::file_size(filep->data.fd) / isam::slot_size() + 1;
  const auto last = std::min<std::int64_t>(isam::dictp->d_nextdata(), slots);
  const std::int64_t step = std::max<std::int64_t>(1, last / kSamples);
  for (std::int64_t record = 1; record <= last; record += step) {
    const int got = isam::dataread(static_cast<std::int32_t>(record), bytes);
    if (got < filep->geometry.reclen) continue;
    const isam::ConstBytes all{bytes.data(), static_cast<std::size_t>(got)};
    draft.add_record(all.first(length), all.subspan(length));
  }
  isam::clear_errors();
}

}  // namespace

std::string layout_beside(const std::string& name) { return name + ".layout"; }

// Where a shell is about to write a draft to it, it is there and empty.
bool has_layout_beside(const std::string& name) {
  struct stat status {};
  return common::system_calls().stat(layout_beside(name).c_str(), &status) == 0 &&
         status.st_size > 0;
}

PairLayout read_layout(const std::string& file, int record_length, bool has_tail) {
  const auto text = contents_of(file, layout::kGreatestText);
  if (!text)
    return {.fields = {}, .file = file, .why = {shown(file) + ": " + std::strerror(errno)}};
  layout::Reading reading = layout::read(*text);
  if (reading.problems.empty()) {
    reading.problems = layout::misfits(reading.fields, record_length, has_tail);
  }
  PairLayout read{.fields = std::move(reading.fields), .file = file, .why = {}};
  for (const layout::Problem& problem : reading.problems) {
    read.why.push_back(layout::shown(problem, shown(file)));
  }
  return read;
}

PairLayout layout_of_pair(const std::string& wanted, const std::string& name) {
  const bool is_beside = wanted.empty() && common::file_exists(layout_beside(name));
  if (wanted.empty() && !is_beside) return {.fields = draft_of_pair(), .file = {}, .why = {}};
  return read_layout(is_beside ? layout_beside(name) : wanted, filep->geometry.reclen,
                     filep->geometry.varlen);
}

layout::Fields draft_of_pair() {
  layout::Draft draft{filep->geometry.reclen, filep->geometry.varlen};
  add_keys(draft);
  add_records(draft);
  return draft.fields();
}

}  // namespace zentra
