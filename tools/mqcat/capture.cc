// capture.cc - see capture.hh. Captures of packets are in pcap.cc.
#include "capture.hh"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>

#include "decode.hh"
#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr uint64_t kMaxRepeat = 64u << 20;  // bytes that all '*' of a dump stand for

// The first word of a pcap file, with times in microseconds or nanoseconds, in either byte order, or of a pcapng file.
bool IsPcap(Bytes file) {
  uint32_t mark = 0;
  if (file.size() >= sizeof mark) memcpy(&mark, file.data(), sizeof mark);
  constexpr uint32_t kMarks[] = {0xa1b2c3d4, 0xd4c3b2a1, 0xa1b23c4d, 0x4d3cb2a1, 0x0a0d0d0a};
  return std::find(std::begin(kMarks), std::end(kMarks), mark) != std::end(kMarks);
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Cuts the next word off line; gap is the number of blanks in front of it.
std::string_view NextWord(std::string_view& line, size_t& gap) {
  gap = static_cast<size_t>(std::find_if_not(line.begin(), line.end(), IsBlank) - line.begin());
  line.remove_prefix(gap);
  const auto end = static_cast<size_t>(std::find_if(line.begin(), line.end(), IsBlank) - line.begin());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

// An offset ends with ':' or has six digits or more in front of shorter words.
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

// Reads a dump line by line.
class HexReader {
 public:
  explicit HexReader(std::vector<uint8_t>& bytes) : bytes_(bytes) {}

  bool Line(std::string_view line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos || line[first] == '#') return true;
    if (line.substr(first, 1) == "*") return repeat_ = last_ != 0;
    const std::optional<uint64_t> offset = TakeOffset(line);
    if (offset && !has_base_) base_ = *offset - bytes_.size();
    has_base_ = has_base_ || offset;
    if (repeat_ && !(offset && RepeatTo(*offset - base_))) return false;
    return Digits(line, offset.has_value());
  }

 private:
  // The bytes of the line before, which are the last ones, once more and again until there are end bytes.
  bool RepeatTo(uint64_t end) {
    repeat_ = false;
    const size_t begin = bytes_.size();
    if (end < begin || end - begin > room_) return false;
    room_ -= end - begin;
    bytes_.resize(static_cast<size_t>(end));
    for (size_t i = begin; i < bytes_.size(); ++i) bytes_[i] = bytes_[i - last_];
    return true;
  }

  // The characters column of a dump begins with a bar, or two blanks behind the digits of a line with an offset.
  bool Digits(std::string_view line, bool dump) {
    constexpr size_t kLine = 16;
    const size_t before = bytes_.size();
    for (bool first = true;; first = false) {
      size_t gap = 0;
      const std::string_view word = NextWord(line, gap);
      if (word.empty() || word.front() == '|' || word.front() == '>') break;
      const bool is_column = dump && gap >= 2;
      if (is_column && bytes_.size() - before >= kLine) break;
      if (AppendHex(bytes_, word)) continue;
      if (!is_column || first) return false;
      break;
    }
    last_ = bytes_.size() - before;
    return true;
  }

  std::vector<uint8_t>& bytes_;
  uint64_t base_ = 0;  // offset of the first byte, once a line has one
  bool has_base_ = false;
  size_t last_ = 0;  // bytes of the line before
  uint64_t room_ = kMaxRepeat;
  bool repeat_ = false;
};

bool IsText(Bytes file) {
  return std::all_of(file.begin(), file.end(),
                     [](uint8_t c) { return (c >= 0x20 && c < 0x7f) || c == '\n' || c == '\r' || c == '\t'; });
}

Capture ReadHex(Bytes file) {
  Capture capture;
  capture.format = CaptureFormat::kHex;
  Stream stream;
  size_t bad_line = 0;
  if (!ReadHexDump(file, stream.bytes, bad_line)) {
    capture.faults.push_back(fmt::format("line {} is not a hexadecimal dump", bad_line));
  }
  capture.streams.push_back(std::move(stream));
  return capture;
}

Capture ReadRaw(Bytes file) {
  Capture capture;
  capture.streams.push_back({"", false, {file.begin(), file.end()}});
  return capture;
}

Capture ReadAny(Bytes file) {
  if (IsPcap(file)) return ReadPcap(file);
  if (BeginsMessage(file) || !IsText(file)) return ReadRaw(file);
  Capture capture = ReadHex(file);
  const bool is_dump = capture.faults.empty() && (file.empty() || !capture.streams.front().bytes.empty());
  return is_dump ? capture : ReadRaw(file);
}

}  // namespace

bool ReadHexDump(Bytes text, std::vector<uint8_t>& bytes, size_t& bad_line) {
  std::string_view rest(reinterpret_cast<const char*>(text.data()), text.size());
  HexReader reader(bytes);
  for (bad_line = 1; !rest.empty(); ++bad_line) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    if (!reader.Line(rest.substr(0, end))) return false;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return true;
}

Capture ReadCapture(Bytes file, CaptureFormat format) {
  switch (format) {
    case CaptureFormat::kRaw:
      return ReadRaw(file);
    case CaptureFormat::kHex:
      return ReadHex(file);
    case CaptureFormat::kPcap:
      return ReadPcap(file);
    default:
      return ReadAny(file);
  }
}

}  // namespace mqcat
