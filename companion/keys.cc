// keys.cc - keys as bytes, as text and in files; signers.
// Not here: who is accepted (ring.cc), signatures (sign.cc).
// Invariant: a copy of a secret key that this room makes is wiped before its place is given up.

#include "companion/keys.hh"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sodium.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "companion/locks.hh"
#include "companion/memory.hh"

namespace mqc {
namespace {

constexpr size_t kSecretFileMax = 65536;
static_assert(crypto_sign_SEEDBYTES == MQC_KEY_BYTES && crypto_sign_PUBLICKEYBYTES == MQC_KEY_BYTES);
static_assert(crypto_sign_SECRETKEYBYTES == sizeof(MqcSigner::secret));

pthread_once_t sodium_once = PTHREAD_ONCE_INIT;
bool sodium_ready;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Cuts the next word off the text: terminates it and moves *text behind it. Empty when there is none.
char* NextWord(char** text) {
  char* start = *text;
  while (IsBlank(*start)) ++start;
  char* end = start;
  while (*end != '\0' && !IsBlank(*end)) ++end;
  *text = *end == '\0' ? end : end + 1;
  *end = '\0';
  return start;
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
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<size_t>(put);
  }
  return fsync(fd) == 0;
}

// The one line of this user, or of the file when user is null.
bool PickKey(const char* path, const char* user, KeyLine* picked, ErrorText error) {
  KeyFile file;
  KeyLine line;
  uint32_t found = 0;
  if (!file.Open(path, true, kSecretFileMax, error)) return false;
  while (file.Next(&line, error)) {
    if (user != nullptr && strcmp(line.user, user) != 0) continue;
    ++found;
    *picked = line;
  }
  sodium_memzero(&line, sizeof(line));
  if (file.bad()) return false;
  if (found == 1) return true;
  if (found == 0 && user == nullptr) return Fail(error, "%s: holds no key", path);
  if (found == 0) return Fail(error, "%s: holds no key of user %s", path, user);
  return Fail(error, user == nullptr ? "%s: holds %u keys, name the user" : "%s: holds %u keys of this user", path,
              found);
}

}  // namespace

bool HaveSodium() {
  pthread_once(&sodium_once, [] {
    const Locked locked(kLockOnce);
    sodium_ready = sodium_init() >= 0;
  });
  return sodium_ready;
}

bool IsUser(const char* user) {
  size_t length = 0;
  for (; user[length] != '\0'; ++length) {
    const char c = user[length];
    if (length == MQC_USER_MAX || c <= ' ' || c > '~' || c == '#') return false;
  }
  return length != 0;
}

KeyFile::~KeyFile() {
  if (bytes_ == nullptr) return;
  sodium_memzero(bytes_, size_ + 1);
  Release(bytes_);
}

bool KeyFile::Open(const char* path, bool secret, size_t max_size, ErrorText error) {
  path_ = path;
  // A pipe of this name must not block; CheckFile refuses it.
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return FailSystem(error, path, errno);
  const bool whole = CheckFile(fd, path, secret, max_size, &size_, error) && Read(fd, error);
  close(fd);
  return whole;
}

bool KeyFile::Read(int fd, ErrorText error) {
  const size_t room = size_;
  bytes_ = static_cast<char*>(Allocate<Kind::kRecord>(static_cast<uint32_t>(room + 1), tags[kTagFile]));
  if (bytes_ == nullptr) return Fail(error, "%s: no memory to read it", path_);
  size_t held = 0;
  while (held < room) {
    const ssize_t got = read(fd, bytes_ + held, room - held);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return FailSystem(error, path_, errno);
    if (got == 0) break;
    held += static_cast<size_t>(got);
  }
  // A file that shrank meanwhile leaves nothing unset to be read.
  memset(bytes_ + held, 0, room + 1 - held);
  size_ = room;
  return true;
}

size_t KeyFile::MaxKeys() const { return size_ / (2 * MQC_KEY_BYTES + 2) + 1; }

bool KeyFile::Parse(char* text, KeyLine* line) {
  const char* user = NextWord(&text);
  const char* key = NextWord(&text);
  const char* rest = NextWord(&text);
  if (!IsUser(user) || *rest != '\0' || !mqc_key_from_text(key, line->key)) return false;
  memcpy(line->user, user, strlen(user) + 1);
  line->number = number_;
  return true;
}

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
    text[strcspn(text, "#")] = '\0';
    if (!cut && text[strspn(text, " \t\r")] == '\0') continue;
    if (!cut && Parse(text, line)) return true;
    bad_ = true;
    return Fail(error, "%s:%u: expected a user of 1 to %u characters and a key of %u hexadecimal digits", path_,
                number_, MQC_USER_MAX, 2 * MQC_KEY_BYTES);
  }
  return false;
}

}  // namespace mqc

using namespace mqc;

int mqc_generate_key(uint8_t secret_key[MQC_KEY_BYTES], uint8_t public_key[MQC_KEY_BYTES]) {
  if (!HaveSodium()) return 0;
  uint8_t expanded[crypto_sign_SECRETKEYBYTES];
  randombytes_buf(secret_key, MQC_KEY_BYTES);
  crypto_sign_seed_keypair(public_key, expanded, secret_key);
  sodium_memzero(expanded, sizeof(expanded));
  return 1;
}

void mqc_key_text(const uint8_t key[MQC_KEY_BYTES], char text[MQC_KEY_TEXT]) {
  sodium_bin2hex(text, MQC_KEY_TEXT, key, MQC_KEY_BYTES);
}

int mqc_key_from_text(const char* text, uint8_t key[MQC_KEY_BYTES]) {
  size_t size = 0;
  const size_t length = strnlen(text, 2 * MQC_KEY_BYTES + 1);
  const bool right = length == 2 * MQC_KEY_BYTES &&
                     sodium_hex2bin(key, MQC_KEY_BYTES, text, length, nullptr, &size, nullptr) == 0 &&
                     size == MQC_KEY_BYTES;
  if (!right) sodium_memzero(key, MQC_KEY_BYTES);
  return right;
}

void mqc_wipe(void* place, size_t size) { sodium_memzero(place, size); }

MqcSigner* mqc_signer_new(const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  if (!HaveSodium()) return Fail(text, "the system gives no randomness"), nullptr;
  if (!IsUser(user)) return Fail(text, kNotUser, user), nullptr;
  auto* signer = static_cast<MqcSigner*>(Allocate<Kind::kRecord>(sizeof(MqcSigner), tags[kTagSigner]));
  if (signer == nullptr) return Fail(text, "no memory for a signer"), nullptr;
  memset(signer, 0, sizeof(*signer));
  signer->mark = kSignerMark;
  memcpy(signer->user, user, strlen(user) + 1);
  crypto_sign_seed_keypair(signer->public_key, signer->secret, secret_key);
  return signer;
}

MqcSigner* mqc_signer_load(const char* path, const char* user, char* error, size_t size) {
  KeyLine line = {};
  Clear({error, size});
  MqcSigner* signer = nullptr;
  if (PickKey(path, user, &line, {error, size})) signer = mqc_signer_new(line.user, line.key, error, size);
  sodium_memzero(&line, sizeof(line));
  return signer;
}

const char* mqc_signer_user(const MqcSigner* signer) { return signer->user; }

void mqc_signer_public_key(const MqcSigner* signer, uint8_t public_key[MQC_KEY_BYTES]) {
  memcpy(public_key, signer->public_key, MQC_KEY_BYTES);
}

void mqc_signer_free(MqcSigner* signer) {
  if (signer == nullptr) return;
  sodium_memzero(signer, sizeof(*signer));
  Release(signer);
}

int mqc_secret_file_write(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error,
                          size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  if (!IsUser(user)) return Fail(text, kNotUser, user);
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return FailSystem(text, path, errno);
  char digits[MQC_KEY_TEXT];
  char line[MQC_USER_MAX + MQC_KEY_TEXT + 3];
  mqc_key_text(secret_key, digits);
  const int length = snprintf(line, sizeof(line), "%s %s\n", user, digits);
  bool written = WriteAll(fd, line, static_cast<size_t>(length));
  sodium_memzero(digits, sizeof(digits));
  sodium_memzero(line, sizeof(line));
  const int code = errno;
  written = close(fd) == 0 && written;
  if (written) return 1;
  unlink(path);
  return FailSystem(text, path, code);
}
