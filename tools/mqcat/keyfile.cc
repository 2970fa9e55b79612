// keyfile.cc - see keyfile.hh.
#include "keyfile.hh"

#include <fcntl.h>
#include <sodium.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string_view>
#include <thread>

#include "failure.hh"
#include "fmt/format.h"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxText = 16u << 20;
constexpr size_t kFirstText = 64u << 10;
constexpr mode_t kRingMode = 0644;
constexpr auto kLockWait = std::chrono::seconds(10);
// Comments that mark all keys of a file. Lines that mqcat writes have a mark of their own.
constexpr std::string_view kSecretMark = "# secret key: keep it to yourself";
constexpr std::string_view kRingMark = "# ring of public keys";

[[noreturn]] void Refuse(const std::string& where, const std::string& why) {
  throw Failure{kExitSecurity, fmt::format("{}: {}", where, why)};
}

Failure SystemFailure(ExitCode exit, std::string_view what, const std::string& path) {
  const int code = errno;
  return {exit, fmt::format("{} {}: {} ({})", what, path, strerror(code), strerrorname_np(code))};
}

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Reset(-1); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  void Reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

struct SodiumFree {
  void operator()(void* place) const { sodium_free(place); }
};
template <typename T>
using Locked = std::unique_ptr<T, SodiumFree>;

// size is a multiple of 16, which keeps the start aligned.
void* AllocateLocked(size_t size) {
  if (sodium_init() < 0) throw Failure{kExitResources, "the system provides no random numbers"};
  void* const place = sodium_malloc(size);
  return place != nullptr ? place : throw std::bad_alloc();
}

struct alignas(16) LockedKey : MqcKey {};

// The lines of a key file, or of standard input.
class KeyText {
 public:
  KeyText(int fd, std::string name)
      : name_(std::move(name)), key_(static_cast<LockedKey*>(AllocateLocked(sizeof(LockedKey)))) {
    Read(fd);
    FindMarks();
  }

  // Moves to the next line. Throws a Failure for a malformed one.
  bool Next() {
    if (at_ == size_) return false;
    line_ = Line(at_);
    at_ += line_.size() + 1;
    text_.get()[at_ - 1] = '\0';
    ++number_;
    const bool whole = line_.find('\0') == std::string_view::npos;
    // The line is not shown: it may contain a secret key in the wrong place.
    if (!whole || !mqc_key_read(line_.data(), key_.get())) {
      Refuse(where(), fmt::format("expected a user of 1 to {} characters, a key of {} hexadecimal digits and any of: "
                                  "public, secret, until=YYYY-MM-DD, revoked",
                                  MQC_USER_MAX, 2 * MQC_KEY_BYTES));
    }
    return true;
  }

  std::string_view line() const { return line_; }
  bool has_key() const { return key_->user[0] != '\0'; }
  const MqcKey& key() const { return *key_; }
  std::string where() const { return fmt::format("{}:{}", name_, number_); }

  // The kind of the key on this line; that of unmarked if neither the line nor the file is marked.
  Unmarked KindOfKey(Unmarked unmarked) const {
    if (key_->kind == MQC_KEY_PUBLIC) return Unmarked::kPublic;
    if (key_->kind == MQC_KEY_SECRET || marks_ == Unmarked::kSecret) return Unmarked::kSecret;
    return marks_ == Unmarked::kUnknown ? unmarked : marks_;
  }

 private:
  void Read(int fd) {
    size_t room = kFirstText;
    text_.reset(static_cast<char*>(AllocateLocked(room)));
    for (;;) {
      const ssize_t got = read(fd, text_.get() + size_, room - 1 - size_);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) throw SystemFailure(kExitInput, "read", name_);
      if (got == 0) break;
      size_ += static_cast<size_t>(got);
      if (size_ > kMaxText) throw Failure{kExitInput, fmt::format("read {}: longer than {} bytes", name_, kMaxText)};
      if (size_ < room - 1) continue;
      Locked<char> larger(static_cast<char*>(AllocateLocked(room *= 2)));
      memcpy(larger.get(), text_.get(), size_);
      text_ = std::move(larger);
    }
    if (size_ != 0 && text_.get()[size_ - 1] != '\n') text_.get()[size_++] = '\n';
  }

  // Every line ends with a newline.
  std::string_view Line(size_t at) const {
    const std::string_view rest(text_.get() + at, size_ - at);
    return rest.substr(0, rest.find('\n'));
  }

  void FindMarks() {
    for (size_t at = 0; at < size_;) {
      const std::string_view line = Line(at);
      at += line.size() + 1;
      const Unmarked mark = line == kSecretMark ? Unmarked::kSecret
                            : line == kRingMark ? Unmarked::kPublic
                                                : Unmarked::kUnknown;
      if (mark == Unmarked::kUnknown) continue;
      if (marks_ != Unmarked::kUnknown && mark != marks_)
        Refuse(name_, "marked both as a secret key file and as a ring");
      marks_ = mark;
    }
  }

  std::string name_;
  Locked<char> text_;
  Locked<LockedKey> key_;
  std::string_view line_;
  Unmarked marks_ = Unmarked::kUnknown;
  size_t size_ = 0;
  size_t at_ = 0;
  size_t number_ = 0;
};

void CheckRing(const std::string& path) {
  char error[512];
  if (!mqc_ring_load(path.c_str(), error, sizeof error)) throw Failure{kExitSecurity, error};
}

void CheckPublic(const MqcKey& key, const std::string& where) {
  if (!mqc_is_public_key(key.key)) Refuse(where, "not a valid public key");
}

struct stat AboutRegular(int fd, const std::string& path) {
  struct stat about = {};
  if (fstat(fd, &about) != 0) throw SystemFailure(kExitInput, "read", path);
  if (!S_ISREG(about.st_mode)) Refuse(path, "not a regular file");
  return about;
}

// The lines of a ring file, including those without a key.
class Ring {
 public:
  void Append(std::string_view text, const MqcKey& key) {
    if (key.user[0] != '\0') by_user_.emplace(key.user, lines_.size());
    lines_.push_back({std::string(text), key});
  }

  // False if nothing has to change.
  bool Put(const MqcKey& key, bool replace) {
    size_t same = SIZE_MAX, other = SIZE_MAX;
    bool revoked = false;
    const auto [begin, end] = by_user_.equal_range(key.user);
    for (auto place = begin; place != end; ++place) {
      const MqcKey& held = lines_[place->second].key;
      const bool is_same = memcmp(held.key, key.key, sizeof key.key) == 0;
      revoked = revoked || (is_same && held.revoked != 0);
      if (is_same) same = place->second;
      if (!is_same && held.revoked == 0) other = place->second;
    }
    const std::string user = fmt::format("user {}", key.user);
    if (revoked && key.revoked == 0) Refuse(user, "this key is revoked in the ring");
    if (revoked) return false;
    if (key.revoked != 0) return Set(same, key);
    if (same != SIZE_MAX && lines_[same].key.until == key.until) return false;
    if (!replace && same != SIZE_MAX) Refuse(user, "the ring has this key with another last day; --replace changes it");
    if (!replace && other != SIZE_MAX) Refuse(user, "the ring has another key of this user; --replace replaces it");
    return Set(same != SIZE_MAX ? same : other, key);
  }

  // Returns how many lines were removed.
  size_t Remove(const std::string& user) {
    return std::erase_if(lines_, [&user](const Line& line) { return user == line.key.user; });
  }

  std::string text() const {
    std::string text;
    for (const Line& line : lines_) text += line.text + "\n";
    return text;
  }

 private:
  struct Line {
    std::string text;
    MqcKey key;
  };

  // Replaces a line, or appends one.
  bool Set(size_t at, const MqcKey& key) {
    if (at < lines_.size()) {
      lines_[at] = {LineOf(key), key};
    } else {
      Append(LineOf(key), key);
    }
    return true;
  }

  std::vector<Line> lines_;
  std::multimap<std::string, size_t> by_user_;
};

size_t PutAll(Ring& ring, const std::vector<MqcKey>& keys, bool replace) {
  return static_cast<size_t>(
      std::count_if(keys.begin(), keys.end(), [&](const MqcKey& key) { return ring.Put(key, replace); }));
}

// Opens the ring and locks it. create: O_CREAT, or 0. Begins again if another process has replaced the file meanwhile.
struct stat LockRing(const std::string& path, Descriptor& ring, int create) {
  const auto deadline = std::chrono::steady_clock::now() + kLockWait;
  for (;;) {
    ring.Reset(open(path.c_str(), O_RDWR | create | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kRingMode));
    if (ring.get() < 0) throw SystemFailure(errno == ENOENT ? kExitInput : kExitOutput, "open", path);
    const struct stat about = AboutRegular(ring.get(), path);
    while (flock(ring.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) throw SystemFailure(kExitOutput, "lock", path);
      if (std::chrono::steady_clock::now() > deadline) throw SystemFailure(kExitTimeout, "lock", path);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    struct stat named = {};
    if (stat(path.c_str(), &named) == 0 && named.st_dev == about.st_dev && named.st_ino == about.st_ino) return named;
  }
}

void ReadRing(const std::string& path, int fd, Ring& ring) {
  CheckRing(path);
  KeyText text(fd, path);
  while (text.Next()) ring.Append(text.line(), text.key());
}

bool WriteWhole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = write(fd, text.data(), text.size());
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    text.remove_prefix(static_cast<size_t>(put));
  }
  return fsync(fd) == 0;
}

bool KeepOwnerAndMode(int fd, const struct stat& about) {
  struct stat fresh = {};
  if (fstat(fd, &fresh) != 0) return false;
  const bool same = fresh.st_uid == about.st_uid && fresh.st_gid == about.st_gid;
  return (same || fchown(fd, about.st_uid, about.st_gid) == 0) && fchmod(fd, about.st_mode & 07777) == 0;
}

// Writes a new file beside the ring and renames it, so that the ring is never half written. A symbolic link is kept.
void ReplaceFile(const std::string& path, const std::string& text, const struct stat& about) {
  char target[PATH_MAX];
  if (realpath(path.c_str(), target) == nullptr) throw SystemFailure(kExitOutput, "write", path);
  std::string fresh = std::string(target) + ".XXXXXX";
  const Descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
  if (file.get() < 0) throw SystemFailure(kExitOutput, "write beside", path);
  if (WriteWhole(file.get(), text) && KeepOwnerAndMode(file.get(), about) && rename(fresh.c_str(), target) == 0) return;
  const Failure failure = SystemFailure(kExitOutput, "replace", path);
  unlink(fresh.c_str());
  throw failure;
}

}  // namespace

void NewSecretFile(const std::string& path, const std::string& user, int64_t until) {
  const Locked<LockedKey> key(static_cast<LockedKey*>(AllocateLocked(sizeof(LockedKey))));
  uint8_t open_key[MQC_KEY_BYTES];
  char error[512];
  if (!mqc_generate_key(key->key, open_key)) throw Failure{kExitResources, "the system provides no random numbers"};
  if (!mqc_secret_file_write_until(path.c_str(), user.c_str(), key->key, until, error, sizeof error)) {
    Refuse("new key", error);
  }
}

std::vector<MqcKey> PublicKeysOf(const std::string& path, Unmarked unmarked) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0) throw SystemFailure(kExitInput, "read", path);
  AboutRegular(file.get(), path);
  KeyText text(file.get(), path);
  std::vector<MqcKey> keys;
  bool is_ring = false;
  while (text.Next()) {
    if (!text.has_key()) continue;
    const Unmarked kind = text.KindOfKey(unmarked);
    if (kind == Unmarked::kUnknown) {
      Refuse(text.where(), "this key is marked neither as public nor as secret: add --public or --secret");
    }
    is_ring = is_ring || kind == Unmarked::kPublic;
    if (kind == Unmarked::kPublic) CheckPublic(text.key(), text.where());
    keys.push_back(kind == Unmarked::kPublic ? text.key() : PublicKeyOf(path, text.key().user));
  }
  if (is_ring) CheckRing(path);
  return keys;
}

MqcKey PublicKeyOf(const std::string& path, const std::string& user) {
  char error[512];
  const std::unique_ptr<MqcSigner, decltype(&mqc_signer_free)> signer(
      mqc_signer_load(path.c_str(), user.empty() ? nullptr : user.c_str(), error, sizeof error), mqc_signer_free);
  if (signer == nullptr) throw Failure{kExitSecurity, fmt::format("secret key file {}", error)};
  MqcKey key = {};
  memcpy(key.user, mqc_signer_user(signer.get()), strlen(mqc_signer_user(signer.get())) + 1);
  mqc_signer_public_key(signer.get(), key.key);
  key.until = mqc_signer_until(signer.get());
  return key;
}

std::vector<MqcKey> PublicKeysFromInput(Unmarked unmarked) {
  KeyText text(STDIN_FILENO, "standard input");
  std::vector<MqcKey> keys;
  while (text.Next()) {
    if (!text.has_key()) continue;
    const Unmarked kind = text.KindOfKey(unmarked);
    if (kind == Unmarked::kSecret) {
      Refuse(text.where(), "a secret key; mqcat keys public prints its line for rings");
    }
    if (kind == Unmarked::kUnknown) {
      Refuse(text.where(), "this key is not marked as public: add the word public to its line, or --public");
    }
    CheckPublic(text.key(), text.where());
    keys.push_back(text.key());
  }
  return keys;
}

MqcKey PublicKeyFrom(const std::string& user, const std::string& digits) {
  MqcKey key;
  if (!mqc_key_read((user + " " + digits).c_str(), &key) || key.user[0] == '\0') {
    Refuse("keys add", fmt::format("expected a user of 1 to {} characters and a key of {} hexadecimal digits",
                                   MQC_USER_MAX, 2 * MQC_KEY_BYTES));
  }
  CheckPublic(key, fmt::format("keys add, user {}", key.user));
  return key;
}

int64_t EndOf(const std::string& day) {
  if (day.empty()) return MQC_NO_END;
  MqcKey key;
  const std::string line = fmt::format("user {:064} until={}", 0, day);
  if (!mqc_key_read(line.c_str(), &key) || key.until == MQC_NO_END) {
    throw Failure{kExitUsage, fmt::format("--until {}: expected a day, YYYY-MM-DD", Quote(day, 40))};
  }
  return key.until;
}

size_t AddToRing(const std::string& path, const std::vector<MqcKey>& keys, bool replace) {
  Ring fresh;
  PutAll(fresh, keys, replace);  // contradictory keys do not create a ring
  Descriptor file;
  const struct stat about = LockRing(path, file, O_CREAT);
  Ring ring;
  if (about.st_size == 0) ring.Append(kRingMark, {});
  ReadRing(path, file.get(), ring);
  const size_t changed = PutAll(ring, keys, replace);
  if (changed != 0) ReplaceFile(path, ring.text(), about);
  return changed;
}

size_t RemoveFromRing(const std::string& path, const std::string& user) {
  Descriptor file;
  const struct stat about = LockRing(path, file, 0);
  Ring ring;
  ReadRing(path, file.get(), ring);
  const size_t removed = ring.Remove(user);
  if (removed == 0) Refuse(path, fmt::format("no key of user {}", Quote(user, 40)));
  ReplaceFile(path, ring.text(), about);
  return removed;
}

std::string LineOf(const MqcKey& key) {
  char line[MQC_KEY_LINE];
  MqcKey marked = key;
  marked.kind = MQC_KEY_PUBLIC;
  mqc_key_write(&marked, line);
  return line;
}

}  // namespace mqcat
