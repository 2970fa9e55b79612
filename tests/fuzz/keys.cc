// keys.cc - key files and ring files. The companion takes a file exactly when mqc_key_read takes each of its lines and
// they agree with each other; a key that was written is read back; mqcat shows no key that is marked as secret.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>

#include "companion/host.h"
#include "tests/fuzz/fuzz.hh"
#include "tools/mqcat/failure.hh"
#include "tools/mqcat/keyfile.hh"

namespace {

constexpr uint64_t kMostFailing = 4;
using Keys = std::vector<MqcKey>;

// A file in memory that can be opened by its name.
class File {
 public:
  explicit File(fuzz::Bytes bytes) : fd_(memfd_create("keys", MFD_CLOEXEC)) {
    HOLDS(fd_ >= 0 && fchmod(fd_, 0600) == 0);
    HOLDS(write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  }
  ~File() { close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

bool SameKey(const MqcKey& a, const MqcKey& b) { return memcmp(a.key, b.key, sizeof a.key) == 0; }

void CheckWriting(const MqcKey& key) {
  char line[MQC_KEY_LINE];
  MqcKey again;
  mqc_key_write(&key, line);
  HOLDS(mqc_key_read(line, &again));
  HOLDS(strcmp(again.user, key.user) == 0 && SameKey(again, key) && again.kind == key.kind);
  HOLDS(again.until == key.until && again.revoked == key.revoked);
}

// Nothing when a line is malformed.
std::optional<Keys> ReadLines(fuzz::Bytes bytes) {
  Keys keys;
  std::istringstream lines(std::string(bytes.begin(), bytes.end()));
  for (std::string line; std::getline(lines, line);) {
    MqcKey key;
    if (line.find('\0') != std::string::npos || !mqc_key_read(line.c_str(), &key)) return std::nullopt;
    if (key.user[0] == '\0') continue;
    CheckWriting(key);
    keys.push_back(key);
  }
  return keys;
}

// The users with a key; nothing when the keys are no ring.
std::optional<std::set<std::string>> UsersOf(const Keys& keys) {
  std::set<std::string> live, users;
  for (const MqcKey& key : keys) {
    if (key.kind == MQC_KEY_SECRET || !mqc_is_public_key(key.key)) return std::nullopt;
    if (key.revoked == 0 && !live.insert(key.user).second) return std::nullopt;
    const bool revoked = std::any_of(keys.begin(), keys.end(), [&](const MqcKey& other) {
      return other.revoked != 0 && strcmp(other.user, key.user) == 0 && SameKey(other, key);
    });
    if (!revoked) users.insert(key.user);
  }
  return users;
}

void CheckListing(const std::string& path, const Keys& keys) {
  Keys shown;
  try {
    shown = mqcat::PublicKeysOf(path, mqcat::Unmarked::kPublic);
  } catch (const mqcat::Failure& failure) {
    HOLDS(!failure.text.empty());
  }
  for (const MqcKey& key : keys) {
    const auto same = [&](const MqcKey& other) { return SameKey(other, key); };
    const bool is_open = std::any_of(keys.begin(), keys.end(),
                                     [&](const MqcKey& other) { return other.kind != MQC_KEY_SECRET && same(other); });
    HOLDS(is_open || std::none_of(shown.begin(), shown.end(), same));
  }
}

// All or nothing: a ring that cannot be loaded leaves the one before.
void CheckRing(const std::string& path, const std::optional<Keys>& keys, uint64_t failing) {
  char error[256];
  const auto users = keys ? UsersOf(*keys) : std::nullopt;
  mqc_ring_clear();
  mqc_fail_allocation(failing, 0);
  const int loaded = mqc_ring_load(path.c_str(), error, sizeof error);
  mqc_fail_allocation(0, 0);
  HOLDS(loaded ? users.has_value() : !users || failing != 0);
  HOLDS((loaded != 0) == (error[0] == '\0'));
  HOLDS(mqc_ring_count() == (loaded ? users->size() : 0));
  if (!loaded) return;
  for (const std::string& user : *users) HOLDS(mqc_ring_remove(user.c_str()));
  HOLDS(mqc_ring_count() == 0);
}

void CheckSigner(const std::string& path, const std::optional<Keys>& keys, const char* user, uint64_t failing) {
  char error[256];
  mqc_fail_allocation(failing, 0);
  MqcSigner* const signer = mqc_signer_load(path.c_str(), user, error, sizeof error);
  mqc_fail_allocation(0, 0);
  Keys of_user;
  if (keys) {
    std::copy_if(keys->begin(), keys->end(), std::back_inserter(of_user),
                 [&](const MqcKey& key) { return user == nullptr || strcmp(key.user, user) == 0; });
  }
  const bool right = of_user.size() == 1 && of_user[0].kind != MQC_KEY_PUBLIC && of_user[0].revoked == 0;
  HOLDS((signer != nullptr) == right || (signer == nullptr && failing != 0));
  if (signer != nullptr) HOLDS(mqc_signer_until(signer) == of_user[0].until);
  HOLDS((signer != nullptr) == (error[0] == '\0'));
  if (signer != nullptr && user != nullptr) HOLDS(strcmp(mqc_signer_user(signer), user) == 0);
  mqc_signer_free(signer);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint64_t failing = input.Byte() % kMostFailing;
  const fuzz::Account account;
  const fuzz::Bytes bytes = input.Rest();
  const File file(bytes);
  const std::optional<Keys> keys = ReadLines(bytes);
  CheckRing(file.path(), keys, failing);
  CheckSigner(file.path(), keys, nullptr, failing);
  CheckSigner(file.path(), keys, "alice", failing);
  if (keys) CheckListing(file.path(), *keys);
  mqc_ring_clear();
  return 0;
}
