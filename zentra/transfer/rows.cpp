#include "zentra/transfer/rows.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "zentra/report/text.h"

namespace zentra {

Rows::Step Rows::bad(std::string why) {
  why_ = std::move(why);
  return Step::kBad;
}

std::string Rows::shown_name(std::string_view name) {
  constexpr std::size_t kMost = 60;  // bytes
  return shown(name.substr(0, kMost));
}

Rows::Step Rows::failed(std::string why) {
  why_ = std::move(why);
  return Step::kFailed;
}

Rows::Step RawRows::fail_on_line(LineReader::Got got) {
  if (got == LineReader::Got::kFailed) return failed(std::strerror(errno));
  return bad(kTooLong);
}

bool RawRows::begin() {
  while (lines_.next() == LineReader::Got::kLine) {
    line_ = lines_.number();
    switch (reader_.take(lines_.line())) {
      case RawReader::Line::kHeader:
        break;
      case RawReader::Line::kRecordsBegin:
        return true;
      default:
        why_ = fmt::format("line {}: {}", line_, reader_.why());
        return false;
    }
  }
  why_ = "the header is torn off";
  return false;
}

Rows::Step RawRows::take(RawReader::Line is) {
  switch (is) {
    case RawReader::Line::kRecord:
      bytes_ = reader_.bytes();
      number_ = reader_.number();
      return Step::kRecord;
    case RawReader::Line::kOrder:
      if (orders_ != nullptr) {
        auto& to = (*orders_)[static_cast<std::size_t>(reader_.index())];
        to.insert(to.end(), reader_.order().begin(), reader_.order().end());
      }
      break;
    case RawReader::Line::kEnd:
      has_ended_ = true;
      if (reader_.count() != records_) {
        return failed(fmt::format("the text had {} records when it was made, and has {}",
                                  reader_.count(), records_));
      }
      break;
    default:
      return bad(reader_.why());
  }
  return Step::kEnd;  // no record: the next line
}

Rows::Step RawRows::next() {
  for (;;) {
    const LineReader::Got got = lines_.next();
    if (got == LineReader::Got::kEnd) {
      why_ = has_ended_ ? "" : "its last line is missing: the text was torn off";
      return Step::kEnd;
    }
    line_ = lines_.number();
    text_ = lines_.line();
    const bool is_record = !text_.empty() && text_[0] >= '0' && text_[0] <= '9';
    if (is_record) ++records_;
    if (got != LineReader::Got::kLine) return fail_on_line(got);
    // Half a line may be a shorter record.
    if (is_record && !lines_.is_ended()) return bad("the line was torn off");
    const Step step = take(reader_.take(text_));
    if (step != Step::kEnd) return step;
  }
}

}  // namespace zentra
