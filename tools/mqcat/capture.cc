// capture.cc - see capture.hh. Captures of packets are in pcap.cc.
#include "capture.hh"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

#include "decode.hh"
#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr uint64_t kMaxRepeat = 64u << 20;   // bytes that all '*' of a dump may repeat
constexpr size_t kMostUndecided = 1u << 30;  // bytes of text that are held

// Whether a file begins like pcap (microseconds or nanoseconds, either byte order) or pcapng.
bool IsPcap(Bytes file) {
  uint32_t mark = 0;
  if (file.size() >= sizeof mark) memcpy(&mark, file.data(), sizeof mark);
  constexpr uint32_t kMarks[] = {0xa1b2c3d4, 0xd4c3b2a1, 0xa1b23c4d, 0x4d3cb2a1, 0x0a0d0d0a};
  return std::find(std::begin(kMarks), std::end(kMarks), mark) != std::end(kMarks);
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Removes the next word from line; gap: the number of blanks before it.
std::string_view NextWord(std::string_view& line, size_t& gap) {
  gap = static_cast<size_t>(std::find_if_not(line.begin(), line.end(), IsBlank) - line.begin());
  line.remove_prefix(gap);
  const auto end = static_cast<size_t>(std::find_if(line.begin(), line.end(), IsBlank) - line.begin());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

// An offset ends with ':', or has six to eight digits and is followed by a shorter word.
std::optional<uint64_t> TakeOffset(std::string_view& line) {
  constexpr size_t kLongest = 16;
  std::string_view rest = line.substr(0, line.find_first_not_of(" \t\r") + kLongest + 2);
  const size_t seen = rest.size();
  size_t gap = 0;
  std::string_view word = NextWord(rest, gap);
  const size_t taken = seen - rest.size();
  const bool marked = word.ends_with(':');
  if (marked) word.remove_suffix(1);
  uint64_t offset = 0;
  const char* const end = word.data() + word.size();
  if (word.empty() || word.size() > kLongest || std::from_chars(word.data(), end, offset, 16).ptr != end) {
    return std::nullopt;
  }
  std::string_view after = line.substr(taken);
  const std::string_view next = marked ? "" : NextWord(after, gap);
  const bool shorter = word.size() >= 6 && word.size() <= 8 && (next.empty() || next.size() < word.size());
  if (!marked && !shorter) return std::nullopt;
  line.remove_prefix(taken);
  return offset;
}

// Reads a dump as it arrives.
class HexReader {
 public:
  // Appends the bytes of the complete lines. False at a line that is not part of a dump.
  bool Take(Bytes text, std::vector<uint8_t>& bytes) {
    std::string_view rest(reinterpret_cast<const char*>(text.data()), text.size());
    for (size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
      begun_.append(rest.substr(0, end));
      if (!Line(begun_, bytes)) return false;
      begun_.clear();
    }
    begun_.append(rest);
    return true;
  }

  // The last line may lack its newline.
  bool Finish(std::vector<uint8_t>& bytes) {
    const std::string last = std::exchange(begun_, "");
    return last.empty() || Line(last, bytes);
  }

  size_t line() const { return line_; }  // the number of the last line, from 1

 private:
  bool Line(std::string_view line, std::vector<uint8_t>& bytes) {
    ++line_;
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos || line[first] == '#') return true;
    if (line.substr(first, 1) == "*") return repeat_ = !last_.empty();
    const std::optional<uint64_t> offset = TakeOffset(line);
    if (offset && !has_base_) base_ = *offset - total_;
    has_base_ = has_base_ || offset;
    if (repeat_ && !(offset && RepeatTo(*offset - base_, bytes))) return false;
    last_.clear();
    if (!Digits(line, offset.has_value())) return false;
    bytes.insert(bytes.end(), last_.begin(), last_.end());
    total_ += last_.size();
    return true;
  }

  // Repeats the previous line until there are end bytes.
  bool RepeatTo(uint64_t end, std::vector<uint8_t>& bytes) {
    repeat_ = false;
    if (end < total_ || end - total_ > repeatable_) return false;
    repeatable_ -= end - total_;
    for (size_t i = 0; total_ < end; ++i, ++total_) bytes.push_back(last_[i % last_.size()]);
    return true;
  }

  // Stores the line's bytes in last_. The characters column of a dump begins with a bar, or with two blanks after the
  // digits of a line with an offset.
  bool Digits(std::string_view line, bool dump) {
    constexpr size_t kLine = 16;
    for (bool first = true;; first = false) {
      size_t gap = 0;
      const std::string_view word = NextWord(line, gap);
      if (word.empty() || word.front() == '|' || word.front() == '>') return true;
      const bool is_column = dump && gap >= 2;
      if (is_column && last_.size() >= kLine) return true;
      if (!AppendHex(last_, word)) return is_column && !first;
    }
  }

  std::string begun_;          // an incomplete line
  std::vector<uint8_t> last_;  // the bytes of the previous line
  uint64_t total_ = 0;         // bytes so far
  uint64_t base_ = 0;          // offset of the first byte, once a line has one
  bool has_base_ = false;
  bool repeat_ = false;
  uint64_t repeatable_ = kMaxRepeat;
  size_t line_ = 0;
};

bool IsText(Bytes bytes) {
  return std::all_of(bytes.begin(), bytes.end(),
                     [](uint8_t c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\r' || c == '\t'; });
}

// Reads the rest of a dump; bytes has its beginning.
void ReadHex(HexReader reader, std::vector<uint8_t> bytes, const ByteSource& next, Receiver& receiver) {
  const auto stream = receiver.Begin("");
  const auto hand_on = [&] {
    stream->Take(bytes);
    bytes.clear();
  };
  hand_on();
  bool good = true;
  for (Bytes text; good && !(text = next()).empty(); hand_on()) good = reader.Take(text, bytes);
  good = good && reader.Finish(bytes);
  hand_on();
  stream->End();
  if (!good) receiver.Fault(fmt::format("line {} is not part of a hexadecimal dump", reader.line()));
}

void ReadRaw(Bytes begin, const ByteSource& next, Receiver& receiver) {
  const auto stream = receiver.Begin("");
  stream->Take(begin);
  for (Bytes bytes; !(bytes = next()).empty();) stream->Take(bytes);
  stream->End();
}

// Holds the input until its form is certain: text is a dump if the dump begins with a message, or if all of it is one.
void ReadAny(const ByteSource& next, Receiver& receiver) {
  std::vector<uint8_t> begin, bytes;
  HexReader reader;
  for (bool ended = false; !ended && begin.size() < kMostUndecided;) {
    const size_t before = begin.size() < sizeof(uint32_t) ? 0 : begin.size();
    const Bytes more = next();
    ended = more.empty();
    begin.insert(begin.end(), more.begin(), more.end());
    if (!ended && begin.size() < sizeof(uint32_t)) continue;
    if (IsPcap(begin)) return ReadPcap(begin, next, receiver);
    const Bytes fresh = Bytes(begin).subspan(before);
    const bool is_dump = !BeginsMessage(begin) && IsText(fresh) && reader.Take(fresh, bytes) &&
                         (!ended || reader.Finish(bytes)) && (!ended || begin.empty() || !bytes.empty());
    if (!is_dump) break;
    if (ended || BeginsMessage(bytes)) return ReadHex(std::move(reader), std::move(bytes), next, receiver);
  }
  ReadRaw(begin, next, receiver);
}

}  // namespace

bool ReadHexDump(Bytes text, std::vector<uint8_t>& bytes, size_t& bad_line) {
  HexReader reader;
  const bool good = reader.Take(text, bytes) && reader.Finish(bytes);
  bad_line = reader.line();
  return good;
}

void ReadCapture(const ByteSource& next, CaptureFormat format, Receiver& receiver) {
  switch (format) {
    case CaptureFormat::kRaw:
      return ReadRaw({}, next, receiver);
    case CaptureFormat::kHex:
      return ReadHex(HexReader(), {}, next, receiver);
    case CaptureFormat::kPcap:
      return ReadPcap({}, next, receiver);
    case CaptureFormat::kAuto:
      return ReadAny(next, receiver);
  }
}

}  // namespace mqcat
