// input.cc - see input.hh.
#include "input.hh"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.hh"
#include "fmt/format.h"
#include "output.hh"
#include "signals.hh"

namespace mqcat {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr int kWait = 500;  // milliseconds, upper bound of the delay of a signal that came just before a wait

Failure ReadFailure(const std::string& path) {
  return {kExitInput, fmt::format("read {}: {} ({})", path, strerror(errno), strerrorname_np(errno))};
}

// Appends bytes to text and returns their number; 0 at the end, and after an interruption.
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

}  // namespace

std::string ReadFile(const std::string& path, size_t limit) {
  Input input(path);
  std::string text;
  for (Bytes bytes; !(bytes = input.Next()).empty();) {
    text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.size() > limit) {
      throw Failure{kExitInput, fmt::format("read {}: longer than {} bytes", input.shown(), limit)};
    }
  }
  if (Interrupted()) throw Failure{kExitInterrupted, ""};
  return text;
}

Input::Input(const std::string& path)
    : shown_(path == "-" ? "standard input" : path),
      fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)),
      chunk_(kChunk) {
  if (fd_ < 0) throw ReadFailure(shown_);
}

Input::~Input() {
  if (fd_ != STDIN_FILENO) close(fd_);
}

bool Input::is_terminal() const { return isatty(fd_) == 1; }

Bytes Input::Next() {
  if (ended_) return {};
  pollfd state = {fd_, POLLIN, 0};
  for (int ready = poll(&state, 1, 0); ready <= 0 && !Interrupted(); ready = poll(&state, 1, kWait)) Flush();
  ssize_t got = 0;
  while (!Interrupted() && (got = read(fd_, chunk_.data(), chunk_.size())) < 0) {
    if (errno != EINTR) throw ReadFailure(shown_);
  }
  ended_ = got == 0;
  return Bytes(chunk_).first(static_cast<size_t>(std::max<ssize_t>(got, 0)));
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
