// input.hh - files and standard input, read whole, by lines or as they arrive, with every failure named.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "text.hh"

namespace mqcat {

// The content of a file; "-" is standard input. Throws a Failure when it cannot be read or is longer than limit bytes.
std::string ReadFile(const std::string& path, size_t limit);

// The bytes of a file as they arrive; "-" is standard input.
class Input {
 public:
  explicit Input(const std::string& path);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // The next bytes, valid until the next call; none at the end, and after an interruption. Flushes standard output
  // before it waits. Throws a Failure if the input cannot be read.
  Bytes Next();
  bool is_terminal() const;
  const std::string& shown() const { return shown_; }  // the name in messages

 private:
  std::string shown_;
  int fd_;
  bool ended_ = false;
  std::vector<uint8_t> chunk_;
};

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
