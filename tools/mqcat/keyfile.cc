// keyfile.cc - see keyfile.hh.
#include "keyfile.hh"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "companion/host.h"
#include "failure.hh"
#include "fmt/format.h"
#include "input.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxRing = 16u << 20;
constexpr size_t kMaxSecretFile = 65536;
constexpr mode_t kRingMode = 0644;
constexpr char kSecretMark[] = "# secret key: keep it to yourself";
constexpr char kRingMark[] = "# ring of public keys";

bool IsUser(const std::string& user) {
  const auto fits = [](char c) { return c > ' ' && c <= '~' && c != '#'; };
  return !user.empty() && user.size() <= MQC_USER_MAX && std::all_of(user.begin(), user.end(), fits);
}

std::string NextWord(const std::string& text, size_t& at) {
  const size_t start = std::min(text.find_first_not_of(" \t\r", at), text.size());
  at = std::min(text.find_first_of(" \t\r", start), text.size());
  return text.substr(start, at - start);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::vector<KeyLine> ParseFile(const std::string& path, const std::string& text) {
  std::vector<KeyLine> keys;
  size_t number = 0;
  for (const std::string& line : Lines(text)) {
    KeyLine key;
    ++number;
    if (!ParseKeyLine(line, fmt::format("{}:{}", path, number), key)) continue;
    key.line = number;
    keys.push_back(std::move(key));
  }
  return keys;
}

bool WriteWhole(int fd, const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const ssize_t put = write(fd, text.data() + at, text.size() - at);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    at += static_cast<size_t>(put);
  }
  return fsync(fd) == 0;
}

// Writes beside the file and renames, so that the ring is never half written.
void ReplaceFile(const std::string& path, const std::string& text) {
  std::string fresh = path + ".XXXXXX";
  const int fd = mkstemp(fresh.data());
  const auto fail = [&](const char* what) {
    const int code = errno;
    if (fd >= 0) unlink(fresh.c_str());
    throw Failure{kExitOutput, fmt::format("{} {}: {} ({})", what, path, strerror(code), strerrorname_np(code))};
  };
  if (fd < 0) fail("write beside");
  struct stat about = {};
  const mode_t mode = stat(path.c_str(), &about) == 0 ? about.st_mode & 07777 : kRingMode;
  const bool written = WriteWhole(fd, text) && fchmod(fd, mode) == 0;
  const int code = errno;
  const bool closed = close(fd) == 0;
  if (!written) errno = code;
  if (!written || !closed) fail("write");
  if (rename(fresh.c_str(), path.c_str()) != 0) fail("replace");
}

// Puts one key into the lines of a ring; false when it is there already.
bool PutKey(std::vector<std::string>& lines, const std::string& path, const KeyLine& key, bool replace) {
  const std::string text = key.user + " " + key.key;
  for (size_t i = 0; i < lines.size(); ++i) {
    KeyLine held;
    if (!ParseKeyLine(lines[i], fmt::format("{}:{}", path, i + 1), held) || held.user != key.user) continue;
    if (held.key == key.key) return false;
    if (!replace) {
      throw Failure{kExitSecurity, fmt::format("{}:{}: user {} has another key; --replace puts the new one there", path,
                                               i + 1, key.user)};
    }
    lines[i] = text;
    return true;
  }
  lines.push_back(text);
  return true;
}

}  // namespace

bool ParseKeyLine(const std::string& text, const std::string& where, KeyLine& out) {
  const std::string line = text.substr(0, text.find('#'));
  const bool cut = text.find('\0') != std::string::npos;
  size_t at = 0;
  out.user = NextWord(line, at);
  if (out.user.empty() && !cut) return false;
  out.key = NextWord(line, at);
  uint8_t key[MQC_KEY_BYTES];
  const bool right = IsUser(out.user) && NextWord(line, at).empty() && mqc_key_from_text(out.key.c_str(), key);
  if (!right || cut) {
    // The key is not shown: it may be a secret one that stands in the wrong place.
    throw Failure{kExitSecurity,
                  fmt::format("{}: user {} with {} characters: expected a user of 1 to {} characters and a key of {} "
                              "hexadecimal digits",
                              where, Quote(out.user, 40), out.key.size(), MQC_USER_MAX, 2 * MQC_KEY_BYTES)};
  }
  char canonical[MQC_KEY_TEXT];
  mqc_key_text(key, canonical);
  out.key = canonical;
  mqc_wipe(key, sizeof key);
  mqc_wipe(canonical, sizeof canonical);
  return true;
}

std::vector<KeyLine> ReadRing(const std::string& path) { return ParseFile(path, ReadFile(path, kMaxRing)); }

size_t AddToRing(const std::string& path, const std::vector<KeyLine>& keys, bool replace) {
  const bool exists = access(path.c_str(), F_OK) == 0;
  std::vector<std::string> lines = exists ? Lines(ReadFile(path, kMaxRing)) : std::vector<std::string>{kRingMark};
  if (std::find(lines.begin(), lines.end(), kSecretMark) != lines.end()) {
    throw Failure{kExitSecurity, fmt::format("{}: a secret key file, not a ring", path)};
  }
  size_t changed = 0;
  for (const KeyLine& key : keys) changed += PutKey(lines, path, key, replace) ? 1 : 0;
  if (changed == 0) return 0;
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  ReplaceFile(path, text);
  return changed;
}

void MarkSecretFile(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
  const bool marked = fd >= 0 && WriteWhole(fd, std::string(kSecretMark) + "\n");
  const int code = errno;
  if (fd >= 0) close(fd);
  if (!marked)
    throw Failure{kExitOutput, fmt::format("write {}: {} ({})", path, strerror(code), strerrorname_np(code))};
}

bool IsSecretFile(const std::string& path) {
  struct stat about = {};
  if (stat(path.c_str(), &about) != 0) {
    throw Failure{kExitInput, fmt::format("read {}: {} ({})", path, strerror(errno), strerrorname_np(errno))};
  }
  std::string text = ReadFile(path, kMaxRing);
  const bool secret = text.find(kSecretMark) != std::string::npos;
  const bool ring = text.find(kRingMark) != std::string::npos;
  mqc_wipe(text.data(), text.size());
  return secret || ((about.st_mode & 077) == 0 && !ring);
}

std::vector<std::string> UsersOfSecretFile(const std::string& path) {
  std::string text = ReadFile(path, kMaxSecretFile);
  std::vector<std::string> users;
  for (KeyLine& key : ParseFile(path, text)) {
    users.push_back(key.user);
    mqc_wipe(key.key.data(), key.key.size());
  }
  mqc_wipe(text.data(), text.size());
  return users;
}

KeyLine PublicKeyOf(const std::string& path, const std::string& user) {
  char error[256];
  const std::unique_ptr<MqcSigner, decltype(&mqc_signer_free)> signer(
      mqc_signer_load(path.c_str(), user.empty() ? nullptr : user.c_str(), error, sizeof error), mqc_signer_free);
  if (signer == nullptr) throw Failure{kExitSecurity, fmt::format("secret key file {}", error)};
  uint8_t key[MQC_KEY_BYTES];
  char text[MQC_KEY_TEXT];
  mqc_signer_public_key(signer.get(), key);
  mqc_key_text(key, text);
  return {mqc_signer_user(signer.get()), text, 0};
}

}  // namespace mqcat
