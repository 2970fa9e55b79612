// keys.cc - key files and ring files. The companion refuses files with a line that mqc_key_read refuses, loads a signer
// exactly if one line is suitable, and accepts no secret key in a ring. Written keys can be read back.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tests/fuzz/fuzz.hh"

namespace {

using Keys = std::vector<MqcKey>;

bool SameKey(const MqcKey& a, const MqcKey& b) { return memcmp(a.key, b.key, sizeof a.key) == 0; }

// False if a line is malformed. Reads each from a block of its own.
bool ReadLines(fuzz::Bytes bytes, Keys* keys) {
  while (!bytes.empty()) {
    const auto end = std::find(bytes.begin(), bytes.end(), '\n');
    std::vector<char> line(static_cast<size_t>(end - bytes.begin()) + 1);
    std::copy(bytes.begin(), end, line.begin());
    bytes = bytes.subspan(std::min(line.size(), bytes.size()));
    MqcKey key, again;
    if (strlen(line.data()) + 1 != line.size() || !mqc_key_read(line.data(), &key)) return false;
    if (key.user[0] == '\0') continue;
    char written[MQC_KEY_LINE], twice[MQC_KEY_LINE];
    mqc_key_write(&key, written);
    REQUIRE(mqc_key_read(written, &again) && SameKey(again, key) && again.until == key.until);
    mqc_key_write(&again, twice);
    REQUIRE(strcmp(written, twice) == 0);
    keys->push_back(key);
  }
  return true;
}

void CheckRing(const char* path, bool whole, const Keys& keys) {
  char error[256];
  mqc_ring_clear();
  const bool loaded = mqc_ring_load(path, error, sizeof error) != 0;
  REQUIRE(loaded == (error[0] == '\0') && (whole || !loaded));
  for (const MqcKey& key : keys) {
    REQUIRE(!loaded || (key.kind != MQC_KEY_SECRET && mqc_is_public_key(key.key)));
    REQUIRE(!mqc_ring_remove(key.user) || loaded);
  }
  REQUIRE(mqc_ring_count() == 0);
}

void CheckSigner(const char* path, bool whole, Keys own, const char* user) {
  char error[256];
  std::erase_if(own, [&](const MqcKey& key) { return user != nullptr && strcmp(key.user, user) != 0; });
  const bool right = whole && own.size() == 1 && own[0].kind != MQC_KEY_PUBLIC && own[0].revoked == 0;
  MqcSigner* const signer = mqc_signer_load(path, user, error, sizeof error);
  REQUIRE((signer != nullptr) == right && right == (error[0] == '\0'));
  if (signer == nullptr) return;
  REQUIRE(mqc_signer_until(signer) == own[0].until && strcmp(mqc_signer_user(signer), own[0].user) == 0);
  mqc_signer_free(signer);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::Bytes bytes(data, size);
  const int fd = memfd_create("keys", MFD_CLOEXEC);
  REQUIRE(fchmod(fd, 0600) == 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  Keys keys;
  const bool whole = ReadLines(bytes, &keys);
  CheckRing(path.c_str(), whole, keys);
  CheckSigner(path.c_str(), whole, keys, nullptr);
  CheckSigner(path.c_str(), whole, keys, "alice");
  close(fd);
  return 0;
}
