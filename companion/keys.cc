// keys.cc - key pairs, key files, signers.
// Not here: keys as text (keyline.cc), accepted users (ring.cc), signatures (sign.cc).
// Invariant: a copy of a secret key that outlives a call is in secret memory (secret.hh).

#include "companion/keys.hh"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sodium.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "companion/locks.hh"
#include "companion/secret.hh"

namespace mqc {
namespace {

constexpr size_t kSecretFileMax = 65536;
static_assert(crypto_sign_SEEDBYTES == MQC_KEY_BYTES && crypto_sign_PUBLICKEYBYTES == MQC_KEY_BYTES);
static_assert(crypto_sign_SECRETKEYBYTES == sizeof(MqcSigner::secret));

pthread_once_t sodium_once = PTHREAD_ONCE_INIT;
bool sodium_ready;

void InitSodium() {
  const Locked locked(kLockOnce);
  sodium_ready = sodium_init() >= 0;
}

// "PATH: No such file or directory (ENOENT)".
bool FailSystem(ErrorText error, const char* path, int code) {
  const char* const name = strerrorname_np(code);
  return Fail(error, "%s: %s (%s)", path, strerror(code), name != nullptr ? name : "?");
}

bool CheckFile(int fd, const char* path, bool secret, size_t max_size, size_t* size, ErrorText error) {
  struct stat about;
  if (fstat(fd, &about) != 0) return FailSystem(error, path, errno);
  if (!S_ISREG(about.st_mode)) return Fail(error, "%s: not a regular file", path);
  if (secret && (about.st_mode & 077) != 0) {
    return Fail(error, "%s: its group or others have access to this secret key (mode %04o); chmod 600 it", path,
                about.st_mode & 07777u);
  }
  if (!secret && (about.st_mode & 022) != 0) {
    return Fail(error,
                "%s: its group or others may write to it (mode %04o), and so decide who is accepted; chmod go-w it",
                path, about.st_mode & 07777u);
  }
  if (about.st_uid != geteuid() && about.st_uid != 0) {
    return Fail(error, "%s: belongs to user id %u, neither to the user of this process nor to root", path,
                about.st_uid);
  }
  if (static_cast<uint64_t>(about.st_size) > max_size) {
    return Fail(error, "%s: %lld bytes, at most %zu are read", path, (long long)about.st_size, max_size);
  }
  *size = static_cast<size_t>(about.st_size);
  return true;
}

bool WriteAll(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t put = write(fd, bytes, size);
    if (put < 0 && errno == EINTR) continue;
    if (put == 0) errno = EIO;
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<size_t>(put);
  }
  return fsync(fd) == 0;
}

// Copies the only line of this user or, if user is null, of the file.
bool PickKey(const char* path, const char* user, KeyLine* picked, ErrorText error) {
  KeyFile file;
  const Secret<KeyLine> line(tags[kTagFile]);
  uint32_t found = 0;
  if (!line) return Fail(error, "%s: no memory to read it", path);
  if (!file.Open(path, true, kSecretFileMax, error)) return false;
  while (file.Next(&*line, error)) {
    if (user != nullptr && strcmp(line->user, user) != 0) continue;
    ++found;
    *picked = *line;
  }
  if (file.bad()) return false;
  if (found == 0 && user == nullptr) return Fail(error, "%s: contains no key", path);
  if (found == 0) return Fail(error, "%s: contains no key of user %s", path, user);
  if (found > 1) {
    return Fail(error, user == nullptr ? "%s: holds %u keys, name the user" : "%s: holds %u keys of this user", path,
                found);
  }
  if (picked->kind == MQC_KEY_PUBLIC) return Fail(error, "%s:%u: a public key cannot sign", path, picked->number);
  return picked->revoked == 0 || Fail(error, "%s:%u: this key is revoked", path, picked->number);
}

MqcSigner* NewSigner(const char* user, const uint8_t secret_key[MQC_KEY_BYTES], int64_t until, ErrorText error) {
  if (!HaveSodium()) return Fail(error, "the system provides no random numbers"), nullptr;
  if (!IsUser(user)) return Fail(error, kNotUser, user), nullptr;
  auto* signer = static_cast<MqcSigner*>(AllocateSecret(sizeof(MqcSigner), tags[kTagSigner]));
  if (signer == nullptr) return Fail(error, "no memory for a signer"), nullptr;
  signer->mark = kSignerMark;
  memcpy(signer->user, user, strlen(user) + 1);
  crypto_sign_seed_keypair(signer->public_key, signer->secret, secret_key);
  signer->until = until;
  return signer;
}

}  // namespace

bool HaveSodium() {
  pthread_once(&sodium_once, InitSodium);
  return sodium_ready;
}

KeyFile::~KeyFile() { ReleaseSecret(bytes_); }

bool KeyFile::Open(const char* path, bool secret, size_t max_size, ErrorText error) {
  path_ = path;
  // O_NONBLOCK, because opening a FIFO must not block. CheckFile refuses it.
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return FailSystem(error, path, errno);
  const bool whole = CheckFile(fd, path, secret, max_size, &size_, error) && Read(fd, error);
  close(fd);
  return whole;
}

bool KeyFile::Read(int fd, ErrorText error) {
  bytes_ = static_cast<char*>(AllocateSecret(static_cast<uint32_t>(size_ + 1), tags[kTagFile]));
  if (bytes_ == nullptr) return Fail(error, "%s: no memory to read it", path_);
  // If the file has become shorter since fstat, the rest of the memory stays zero.
  for (size_t done = 0; done < size_;) {
    const ssize_t got = read(fd, bytes_ + done, size_ - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return FailSystem(error, path_, errno);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return true;
}

size_t KeyFile::MaxKeys() const { return size_ / (2 * MQC_KEY_BYTES + 2) + 1; }

bool KeyFile::Next(KeyLine* line, ErrorText error) {
  while (at_ < size_) {
    char* text = bytes_ + at_;
    const size_t left = size_ - at_;
    const char* newline = static_cast<const char*>(memchr(text, '\n', left));
    const size_t length = newline == nullptr ? left : static_cast<size_t>(newline - text);
    at_ += length + 1;
    ++number_;
    text[length] = '\0';
    const bool cut = memchr(text, '\0', length) != nullptr;
    if (cut || !mqc_key_read(text, line)) {
      bad_ = true;
      return Fail(error, "%s:%u: expected a user of 1 to %u characters, a key of %u hexadecimal digits and any of: %s",
                  path_, number_, MQC_USER_MAX, 2 * MQC_KEY_BYTES, "public, secret, until=YYYY-MM-DD, revoked");
    }
    line->number = number_;
    if (line->user[0] != '\0') return true;
  }
  return false;
}

}  // namespace mqc

using namespace mqc;

int mqc_generate_key(uint8_t secret_key[MQC_KEY_BYTES], uint8_t public_key[MQC_KEY_BYTES]) {
  if (!HaveSodium()) return 0;  // GCOVR_EXCL_BR_LINE: libsodium aborts
  uint8_t expanded[crypto_sign_SECRETKEYBYTES];
  randombytes_buf(secret_key, MQC_KEY_BYTES);
  crypto_sign_seed_keypair(public_key, expanded, secret_key);
  sodium_memzero(expanded, sizeof(expanded));
  return 1;
}

int mqc_is_public_key(const uint8_t key[MQC_KEY_BYTES]) {
  return HaveSodium() && crypto_core_ed25519_is_valid_point(key) == 1;  // GCOVR_EXCL_BR_LINE: libsodium aborts
}

void mqc_wipe(void* place, size_t size) { sodium_memzero(place, size); }

MqcSigner* mqc_signer_new(const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error, size_t size) {
  Clear({error, size});
  return NewSigner(user, secret_key, MQC_NO_END, {error, size});
}

MqcSigner* mqc_signer_load(const char* path, const char* user, char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  const Secret<KeyLine> line(tags[kTagFile]);
  if (!line) return Fail(text, "%s: no memory to read it", path), nullptr;
  return PickKey(path, user, &*line, text) ? NewSigner(line->user, line->key, line->until, text) : nullptr;
}

const char* mqc_signer_user(const MqcSigner* signer) { return signer->user; }

void mqc_signer_public_key(const MqcSigner* signer, uint8_t public_key[MQC_KEY_BYTES]) {
  memcpy(public_key, signer->public_key, MQC_KEY_BYTES);
}

int64_t mqc_signer_until(const MqcSigner* signer) { return signer->until; }

void mqc_signer_free(MqcSigner* signer) { ReleaseSecret(signer); }

int mqc_secret_file_write_until(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES],
                                int64_t until, char* error, size_t size) {
  struct Content {
    MqcKey key;
    char line[MQC_KEY_LINE + 1];
  };
  const ErrorText text = {error, size};
  Clear(text);
  if (!IsUser(user)) return Fail(text, kNotUser, user);
  const Secret<Content> content(tags[kTagFile]);
  if (!content) return Fail(text, "%s: no memory to write it", path);
  MqcKey& key = content->key;
  memcpy(key.user, user, strlen(user) + 1);
  memcpy(key.key, secret_key, MQC_KEY_BYTES);
  key.kind = MQC_KEY_SECRET;
  key.until = until;
  mqc_key_write(&key, content->line);
  strcat(content->line, "\n");
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return FailSystem(text, path, errno);
  int code = WriteAll(fd, content->line, strlen(content->line)) ? 0 : errno;
  if (close(fd) != 0 && code == 0) code = errno;
  if (code == 0) return 1;
  unlink(path);
  return FailSystem(text, path, code);
}

int mqc_secret_file_write(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error,
                          size_t size) {
  return mqc_secret_file_write_until(path, user, secret_key, MQC_NO_END, error, size);
}
