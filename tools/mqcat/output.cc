// output.cc - see output.hh.
#include "output.hh"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "failure.hh"
#include "fmt/format.h"
#include "number.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kBufferSize = 64 * 1024;
constexpr size_t kWidth = 100;
constexpr size_t kNarrowest = 20;
constexpr size_t kWidest = 400;

std::string buffer;
size_t progress_length = 0;

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = write(fd, text.data(), text.size());
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    text.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

void WriteOutput(std::string_view text) {
  if (WriteAll(STDOUT_FILENO, text)) return;
  if (errno == EPIPE) throw Failure{kExitOutputClosed, ""};
  throw Failure{kExitOutput, fmt::format("write {} bytes to standard output: {} ({})", text.size(), strerror(errno),
                                         strerrorname_np(errno))};
}

}  // namespace

void Print(std::string_view text) {
  if (buffer.size() + text.size() > kBufferSize) Flush();
  if (text.size() > kBufferSize) return WriteOutput(text);
  buffer += text;
}

void PrintJson(const nlohmann::ordered_json& json) {
  Print(SafeJson(json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)) + "\n");
}

void Flush() {
  std::string text;
  text.swap(buffer);  // a failure is reported once, whatever is flushed on the way out
  WriteOutput(text);
  text.clear();
  buffer.swap(text);  // keeps the memory
}

size_t OutputWidth() {
  winsize size = {};
  size_t width = kWidth;
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
    width = size.ws_col;
  } else if (const char* columns = getenv("COLUMNS")) {
    width = ParseNumber<size_t>(columns, 1, 100000).value_or(kWidth);
  }
  return std::clamp(width, kNarrowest, kWidest);
}

bool OutputIsTerminal() { return isatty(STDOUT_FILENO) == 1; }
bool NotesAreOnTerminal() { return isatty(STDERR_FILENO) == 1; }

void Note(std::string_view text) {
  ShowProgress("");
  WriteAll(STDERR_FILENO, fmt::format("mqcat: {}\n", SafeLines(text)));
}

void ShowProgress(std::string_view text) {
  if (text.empty() && progress_length == 0) return;
  const size_t blanks = progress_length > text.size() ? progress_length - text.size() : 0;
  WriteAll(STDERR_FILENO, fmt::format("\r{}{:{}}\r", text, "", blanks));
  progress_length = text.size();
}

}  // namespace mqcat
