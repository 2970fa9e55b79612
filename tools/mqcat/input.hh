// input.hh - files and standard input, read whole or by lines, with every failure named.
#pragma once

#include <optional>
#include <string>

namespace mqcat {

// The content of a file; "-" is standard input. Throws a Failure when it cannot be read or is longer than limit bytes.
std::string ReadFile(const std::string& path, size_t limit);

// Lines of standard input, at most limit bytes each.
class LineReader {
 public:
  explicit LineReader(size_t limit) : limit_(limit) {}

  // The next line without its newline; nothing at the end, and after an interruption.
  std::optional<std::string> Next();
  size_t number() const { return number_; }  // of the line that Next gave last, counted from 1

 private:
  bool Fill();

  size_t limit_;
  std::string held_;
  size_t at_ = 0;        // where the next line begins in held_
  size_t searched_ = 0;  // held_ has no newline from at_ to here
  size_t number_ = 0;
};

}  // namespace mqcat
