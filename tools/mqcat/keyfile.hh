// keyfile.hh - what users do with key files. The companion defines their lines (mqc_key_read).
// Invariant: no secret key leaves this module. Text that may hold one lies in memory that is locked, left out of core
// dumps and wiped.
#pragma once

#include <string>
#include <vector>

#include "companion/host.h"

namespace mqcat {

// The kind of lines that are marked neither by a word of their own nor by a comment of their file.
enum class Unmarked { kUnknown, kPublic, kSecret };

// Generates a key pair and writes the secret key, valid until the given time, into a new file.
void NewSecretFile(const std::string& path, const std::string& user, int64_t until);

// The public keys of a ring, or those that belong to the secret keys of a file. Throws a Failure for a line that is not
// known to be secret or public, and if the companion refuses the file.
std::vector<MqcKey> PublicKeysOf(const std::string& path, Unmarked unmarked);

// The public key of a user's secret key in a file; an empty user: the only key of the file.
MqcKey PublicKeyOf(const std::string& path, const std::string& user);

// Public keys from standard input. Throws a Failure for a secret key, and for a key that is not marked as public.
std::vector<MqcKey> PublicKeysFromInput(Unmarked unmarked);

// A key from the command line, which the user declares to be public.
MqcKey PublicKeyFrom(const std::string& user, const std::string& digits);

// The last millisecond of a day, YYYY-MM-DD; MQC_NO_END for an empty text.
int64_t EndOf(const std::string& day);

// Adds keys to a ring file, which is created when it does not exist. The file is replaced whole or left as it was, and
// no other process adds to it meanwhile. A user who has another key there, or the same with another end, is refused
// unless replace; a revoked key stays revoked. Returns how many lines are new or changed.
size_t AddToRing(const std::string& path, const std::vector<MqcKey>& keys, bool replace);

// Removes all keys of a user from a ring file, in the same way. Returns how many; a Failure when there is none.
size_t RemoveFromRing(const std::string& path, const std::string& user);

// "alice 3d40... public until=2027-06-30"
std::string LineOf(const MqcKey& key);

}  // namespace mqcat
