#include "layout/csv.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "layout/forms.h"

namespace layout {
namespace {

constexpr std::size_t kPiece = std::size_t{1} << 18;

std::string_view without_return(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

CsvReader::CsvReader(Source source, std::size_t longest)
    : source_(std::move(source)), longest_(longest), buffer_(kPiece) {}

// Reads at least so many bytes more, unless the source ends: false when it fails.
bool CsvReader::fill(std::size_t least) {
  std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  buffer_.resize(std::max(buffer_.size(), end_ + std::max(least, kPiece)));
  const std::size_t wanted = end_ + least;
  while (end_ < wanted) {
    const std::ptrdiff_t got = source_(std::span(buffer_).subspan(end_));
    if (got < 0) return false;
    if (got == 0) {
      is_at_end_ = true;
      return true;
    }
    end_ += static_cast<std::size_t>(got);
  }
  return true;
}

// Looks at the first bytes: whether this can be CSV.
bool CsvReader::begin() {
  is_at_start_ = false;
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  if (!fill(kMark.size())) return false;
  if (rest().starts_with("\xFF\xFE") || rest().starts_with("\xFE\xFF")) {
    wrong_ = "this is UTF-16; CSV has to be UTF-8";
    return false;
  }
  if (rest().starts_with(kMark)) begin_ += kMark.size();
  return true;
}

CsvReader::Step CsvReader::next() {
  wrong_.clear();
  cells_.clear();
  bytes_ = {};
  if (is_at_start_ && !begin()) return Step::kFailed;
  for (;;) {
    line_ = next_line_;
    const std::string_view text = rest();
    if (text.empty() && is_at_end_) return Step::kEnd;
    if (text.starts_with('\n') || text.starts_with("\r\n")) {
      begin_ += text.starts_with('\n') ? 1 : 2;
      ++next_line_;
      continue;
    }
    const Row row = text.empty() ? Row{Row::Is::kCut, 0} : split(text);
    if (row.is != Row::Is::kCut && row.size <= longest_ + 2) return take(row);
    if (text.size() > longest_) {
      const std::string why = "longer than " + std::to_string(longest_) + " bytes";
      return text.find('\n') != text.npos ? take_first_line(why) : skip_line();
    }
    if (is_at_end_) return take_first_line("a quote is missing");
    if (!fill(std::max<std::size_t>(text.size(), 1))) return Step::kFailed;
  }
}

// The row at the beginning of the text.
CsvReader::Row CsvReader::split(std::string_view text) {
  cells_.clear();
  const std::size_t end = text.find('\n');
  if (end == text.npos && !is_at_end_) return {Row::Is::kCut, 0};
  const std::string_view line = without_return(text.substr(0, end));
  const unsigned classes = classes_of(line);
  if ((classes & kControl) != 0 && line.find('\0') != line.npos) {
    return refuse(text, 0, "there is a zero byte");
  }
  if ((classes & kHigh) != 0 && !is_utf8(line)) return refuse(text, 0, "this is no UTF-8");
  if ((classes & kQuote) != 0) return split_quoted(text);
  if ((classes & kReturn) != 0) return refuse(text, 0, "a carriage return does not end a line");
  split_simple(line);
  return {Row::Is::kWhole, std::min(end, text.size() - 1) + 1};
}

void CsvReader::split_simple(std::string_view line) {
  for (;;) {
    const std::size_t comma = line.find(',');
    cells_.push_back(line.substr(0, comma));
    if (comma == line.npos) return;
    line.remove_prefix(comma + 1);
  }
}

// Of a bad row: its text up to the end of the line with the byte at `from`.
CsvReader::Row CsvReader::refuse(std::string_view text, std::size_t from, std::string why) {
  const std::size_t end = text.find('\n', from);
  if (end == text.npos && !is_at_end_) return {Row::Is::kCut, 0};
  wrong_ = std::move(why);
  return {Row::Is::kBad, std::min(end, text.size() - 1) + 1};
}

CsvReader::Row CsvReader::split_quoted(std::string_view text) {
  unquoted_.clear();
  std::size_t at = 0;
  for (;;) {
    std::size_t end = 0;  // of the cell, with its quotes
    if (at < text.size() && text[at] == '"') {
      bool has_quotes = false;
      std::size_t quote = text.find('"', at + 1);
      while (quote != text.npos && text.substr(quote + 1).starts_with('"')) {
        has_quotes = true;
        quote = text.find('"', quote + 2);
      }
      if (quote == text.npos || (quote + 1 == text.size() && !is_at_end_)) {
        return {Row::Is::kCut, 0};
      }
      cells_.push_back(unquoted(text.substr(at + 1, quote - at - 1), has_quotes));
      end = quote + 1;
    } else {
      end = std::min(text.find_first_of(",\"\n", at), text.size());
      const std::string_view cell = text.substr(at, end - at);
      const bool ends_line = end == text.size() || text[end] == '\n';
      cells_.push_back(ends_line ? without_return(cell) : cell);
      if (cells_.back().find('\r') != text.npos) {
        return refuse(text, at, "a carriage return does not end a line");
      }
    }
    if (end == text.size()) return {is_at_end_ ? Row::Is::kWhole : Row::Is::kCut, end};
    if (text.substr(end).starts_with("\r\n")) ++end;
    if (text[end] == '\n') return {Row::Is::kWhole, end + 1};
    if (text[end] != ',') {
      if (text.substr(end) == "\r") return {is_at_end_ ? Row::Is::kWhole : Row::Is::kCut, end + 1};
      return refuse(text, end,
                    text[end] == '"' ? "a quote within a cell that has none around it"
                                     : "a cell goes on behind its last quote");
    }
    at = end + 1;
  }
}

// A cell without its outer quotes; `has_quotes`: doubled ones are in it.
std::string_view CsvReader::unquoted(std::string_view cell, bool has_quotes) {
  if (!has_quotes) return cell;
  // Cells before this one stay where they are: all of the row have room.
  if (unquoted_.empty()) unquoted_.reserve(end_ - begin_);
  const std::size_t first = unquoted_.size();
  for (;;) {
    const std::size_t quote = cell.find('"');
    unquoted_ += cell.substr(0, quote == cell.npos ? quote : quote + 1);
    if (quote == cell.npos) break;
    cell.remove_prefix(quote + 2);
  }
  return std::string_view(unquoted_).substr(first);
}

CsvReader::Step CsvReader::take(Row row) {
  bytes_ = rest().substr(0, row.size);
  next_line_ += std::ranges::count(bytes_, '\n');
  begin_ += row.size;
  if (bytes_.ends_with('\n')) bytes_.remove_suffix(1);
  bytes_ = without_return(bytes_);
  if (row.is == Row::Is::kBad) return Step::kBad;
  if (bytes_.find('\n') == bytes_.npos) return Step::kRow;  // split() has looked at the first line
  if (bytes_.find('\0') != bytes_.npos) wrong_ = "there is a zero byte";
  if (!is_utf8(bytes_)) wrong_ = "this is no UTF-8";
  return wrong_.empty() ? Step::kRow : Step::kBad;
}

// A row whose end is not to be found: its first line is bad, and what follows is looked at anew.
CsvReader::Step CsvReader::take_first_line(std::string why) {
  wrong_ = std::move(why);
  const std::size_t end = rest().find('\n');
  return take({Row::Is::kBad, std::min(end, rest().size() - 1) + 1});
}

// A line whose end is not in reach.
CsvReader::Step CsvReader::skip_line() {
  wrong_ = "longer than " + std::to_string(longest_) + " bytes";
  const std::string beginning(rest().substr(0, longest_));
  std::size_t end = 0;
  while ((end = rest().find('\n')) == std::string_view::npos && !is_at_end_) {
    begin_ = end_;
    if (!fill(1)) return Step::kFailed;
  }
  begin_ = end == std::string_view::npos ? end_ : begin_ + end + 1;
  ++next_line_;
  unquoted_ = beginning;
  bytes_ = unquoted_;
  return Step::kBad;
}

}  // namespace layout
