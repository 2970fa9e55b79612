// keys.cc - key files and ring files. The companion and mqcat read the same format, each with a reader of its own: what
// one accepts the other accepts, and both find the same users.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "companion/host.h"
#include "tests/fuzz/fuzz.hh"
#include "tools/mqcat/failure.hh"
#include "tools/mqcat/keyfile.hh"

namespace {

constexpr uint64_t kMostFailing = 4;
using Keys = std::vector<mqcat::KeyLine>;

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

std::optional<Keys> ReadByMqcat(const std::string& path) {
  try {
    return mqcat::ReadRing(path);
  } catch (const mqcat::Failure& failure) {
    HOLDS(!failure.text.empty());
    return std::nullopt;
  }
}

bool UsersDiffer(const Keys& keys) {
  std::vector<std::string> users;
  for (const mqcat::KeyLine& key : keys) users.push_back(key.user);
  std::sort(users.begin(), users.end());
  return std::adjacent_find(users.begin(), users.end()) == users.end();
}

bool ArePoints(const Keys& keys) {
  return std::all_of(keys.begin(), keys.end(), [](const mqcat::KeyLine& key) {
    uint8_t bytes[MQC_KEY_BYTES];
    HOLDS(mqc_key_from_text(key.key.c_str(), bytes));
    mqc_ring_remove("?");
    const bool point = mqc_ring_add("?", bytes, nullptr, 0) != 0;
    mqc_ring_remove("?");
    return point;
  });
}

// All or nothing: a ring that cannot be loaded leaves the one before.
void CheckRing(const std::string& path, const std::optional<Keys>& keys, uint64_t failing) {
  char error[256];
  const bool right = keys && UsersDiffer(*keys) && ArePoints(*keys);
  mqc_ring_clear();
  mqc_fail_allocation(failing, 0);
  const int loaded = mqc_ring_load(path.c_str(), error, sizeof error);
  mqc_fail_allocation(0, 0);
  HOLDS(loaded ? right : !right || failing != 0);
  HOLDS((loaded != 0) == (error[0] == '\0'));
  HOLDS(mqc_ring_count() == (loaded ? keys->size() : 0));
  if (!loaded) return;
  for (const mqcat::KeyLine& key : *keys) HOLDS(mqc_ring_remove(key.user.c_str()));
  HOLDS(mqc_ring_count() == 0);
}

void CheckSigner(const std::string& path, const std::optional<Keys>& keys, const char* user, uint64_t failing) {
  char error[256];
  mqc_fail_allocation(failing, 0);
  MqcSigner* const signer = mqc_signer_load(path.c_str(), user, error, sizeof error);
  mqc_fail_allocation(0, 0);
  const auto count = !keys ? 0 : std::count_if(keys->begin(), keys->end(), [&](const mqcat::KeyLine& key) {
    return user == nullptr || key.user == user;
  });
  HOLDS((signer != nullptr) == (count == 1) || (signer == nullptr && failing != 0));
  HOLDS((signer != nullptr) == (error[0] == '\0'));
  if (signer != nullptr && user != nullptr) HOLDS(strcmp(mqc_signer_user(signer), user) == 0);
  mqc_signer_free(signer);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint64_t failing = input.Byte() % kMostFailing;
  const fuzz::Account account;
  const File file(input.Rest());
  const std::optional<Keys> keys = ReadByMqcat(file.path());
  CheckRing(file.path(), keys, failing);
  CheckSigner(file.path(), keys, nullptr, failing);
  CheckSigner(file.path(), keys, "alice", failing);
  return 0;
}
