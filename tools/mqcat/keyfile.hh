// keyfile.hh - secret key files and ring files, as text with their comments. What a key or a user may be is the
// companion's to say; this adds what a person does with the files.
#pragma once

#include <string>
#include <vector>

namespace mqcat {

struct KeyLine {
  std::string user;
  std::string key;  // 64 hexadecimal digits, lower case
  size_t line = 0;  // counted from 1
};

// "user key", blanks around allowed, what follows '#' skipped. False for an empty line; a Failure that names where for
// a malformed one.
bool ParseKeyLine(const std::string& text, const std::string& where, KeyLine& out);

// All keys of a ring file.
std::vector<KeyLine> ReadRing(const std::string& path);

// Adds keys to a ring file, which is created when it does not exist. The file is replaced whole or left as it was.
// A user who is there with another key is refused, unless replace. Returns how many keys are new or changed.
size_t AddToRing(const std::string& path, const std::vector<KeyLine>& keys, bool replace);

// Marks a fresh secret key file as one, with a comment.
void MarkSecretFile(const std::string& path);

// Whether the file is one of secret keys: it is marked so, or it is for its owner alone and not marked as a ring.
bool IsSecretFile(const std::string& path);

// Users of a secret key file; their keys are not kept.
std::vector<std::string> UsersOfSecretFile(const std::string& path);

// The public key that belongs to a user's secret key; user empty for the only one.
KeyLine PublicKeyOf(const std::string& path, const std::string& user);

}  // namespace mqcat
