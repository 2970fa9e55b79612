// input.cc - see input.hh.
#include "input.hh"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "failure.hh"
#include "fmt/format.h"
#include "signals.hh"

namespace mqcat {
namespace {

constexpr size_t kChunk = 64 * 1024;

Failure ReadFailure(const std::string& path) {
  return {kExitInput, fmt::format("read {}: {} ({})", path, strerror(errno), strerrorname_np(errno))};
}

// Bytes appended to text; 0 at the end, and after an interruption.
size_t ReadChunk(int fd, const std::string& path, std::string& text) {
  const size_t before = text.size();
  text.resize(before + kChunk);
  ssize_t got = -1;
  do {
    got = read(fd, text.data() + before, kChunk);
  } while (got < 0 && errno == EINTR && !Interrupted());
  const int code = errno;
  text.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
  errno = code;
  if (got < 0 && !Interrupted()) throw ReadFailure(path);
  return text.size() - before;
}

class File {
 public:
  explicit File(const std::string& path) : fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) throw ReadFailure(path);
  }
  ~File() {
    if (fd_ != STDIN_FILENO) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::string ReadFile(const std::string& path, size_t limit) {
  const std::string shown = path == "-" ? "standard input" : path;
  const File file(path);
  std::string text;
  while (ReadChunk(file.fd(), shown, text) != 0) {
    if (text.size() > limit) {
      throw Failure{kExitInput, fmt::format("read {}: longer than {} bytes", shown, limit)};
    }
  }
  if (Interrupted()) throw Failure{kExitInterrupted, ""};
  return text;
}

bool LineReader::Fill() {
  held_.erase(0, at_);
  searched_ -= at_;
  at_ = 0;
  if (held_.size() > limit_) {
    throw Failure{kExitInput, fmt::format("standard input, line {}: longer than {} bytes", number_ + 1, limit_)};
  }
  return ReadChunk(STDIN_FILENO, "standard input", held_) != 0;
}

std::optional<std::string> LineReader::Next() {
  size_t end = held_.find('\n', searched_);
  while (end == std::string::npos) {
    searched_ = held_.size();
    if (Fill()) {
      end = held_.find('\n', searched_);
      continue;
    }
    if (at_ == held_.size() || Interrupted()) return std::nullopt;
    end = held_.size();
  }
  ++number_;
  std::string line = held_.substr(at_, end - at_);
  at_ = searched_ = std::min(end + 1, held_.size());
  return line;
}

}  // namespace mqcat
