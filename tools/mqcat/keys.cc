// keys.cc - mqcat keys: secret key files and rings of public keys.
#include <memory>

#include "companion/host.h"
#include "keyfile.hh"
#include "options.hh"
#include "output.hh"

namespace mqcat {
namespace {

struct Options {
  std::string file;
  std::string user;
  std::string key;
  std::string until;
  bool replace = false;
  bool revoke = false;
  bool is_public = false;
  bool is_secret = false;
};

void PrintKey(const MqcKey& key) { Print(LineOf(key) + "\n"); }

void New(const Options& options) {
  NewSecretFile(options.file, options.user, EndOf(options.until));
  PrintKey(PublicKeyOf(options.file, options.user));
  Flush();
  Note(fmt::format("the secret key is in {}; the line above goes into the rings of those who read", options.file));
}

void Public(const Options& options) { PrintKey(PublicKeyOf(options.file, options.user)); }

void Add(const Options& options) {
  // The word in the place of the user is not shown: it may be a secret key.
  if (!options.user.empty() && options.key.empty()) {
    throw Failure{kExitUsage, "keys add: a user without a key; give both, or lines on standard input"};
  }
  const Unmarked unmarked = options.is_public ? Unmarked::kPublic : Unmarked::kUnknown;
  std::vector<MqcKey> keys =
      options.user.empty() ? PublicKeysFromInput(unmarked) : std::vector{PublicKeyFrom(options.user, options.key)};
  if (keys.empty()) throw Failure{kExitInput, "keys add: standard input holds no key"};
  for (MqcKey& key : keys) {
    if (!options.until.empty()) key.until = EndOf(options.until);
    if (options.revoke) key.revoked = 1;
  }
  const size_t changed = AddToRing(options.file, keys, options.replace);
  Note(fmt::format("{} of {} keys are new in {}", changed, keys.size(), options.file));
}

void List(const Options& options) {
  const Unmarked unmarked = options.is_secret   ? Unmarked::kSecret
                            : options.is_public ? Unmarked::kPublic
                                                : Unmarked::kUnknown;
  for (const MqcKey& key : PublicKeysOf(options.file, unmarked)) PrintKey(key);
}

}  // namespace

void AddKeys(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const keys = app.add_subcommand("keys", "Make and look after secret key files and rings of public keys");
  keys->require_subcommand(1);
  keys->footer(
      "A secret key file and a ring hold one key a line: a user, 64 hexadecimal digits, and any of the words secret or "
      "public, until=YYYY-MM-DD, revoked. No secret key is ever printed.\n\n"
      "Examples:\n  mqcat keys new alice alice.key\n  mqcat keys public alice.key | mqcat keys add ring\n"
      "  mqcat keys list ring\n  mqcat keys public alice.key | mqcat keys add ring --revoke\n  mqcat listen 5000 "
      "--ring ring\n  mqcat send 127.0.0.1 5000 -c 1 --sign alice.key");

  CLI::App* const fresh = keys->add_subcommand("new", "Make a key pair; print the line for rings");
  fresh->add_option("USER", options->user, "Whose key; 1 to 12 characters, the user of the nodes that sign")
      ->required();
  fresh->add_option("FILE", options->file, "New file for the secret key, readable by its owner alone")->required();
  fresh->add_option("--until", options->until, "The key's last day, UTC; none without")->type_name("YYYY-MM-DD");
  fresh->callback([options] { New(*options); });

  CLI::App* const open = keys->add_subcommand("public", "Print the line for rings that belongs to a secret key");
  open->add_option("FILE", options->file, "Secret key file")->required();
  open->add_option("USER", options->user, "Whose key, when the file holds several");
  open->callback([options] { Public(*options); });

  CLI::App* const add = keys->add_subcommand("add", "Add public keys to a ring, which is created if need be");
  add->add_option("RING", options->file, "Ring file")->required();
  add->add_option("USER", options->user, "Whose key; without it lines are read from standard input");
  add->add_option("KEY", options->key, "The public key, 64 hexadecimal digits");
  add->add_option("--until", options->until, "The last day of these keys, UTC")->type_name("YYYY-MM-DD");
  add->add_flag("--revoke", options->revoke, "Accept nothing more that these keys have signed");
  add->add_flag("--replace", options->replace, "Give a user who is there already the new key, or the new end");
  add->add_flag("--public", options->is_public, "The keys on standard input are public, though nothing there says so");
  add->callback([options] { Add(*options); });

  CLI::App* const list = keys->add_subcommand("list", "Print the public keys of a ring or of a secret key file");
  list->add_option("FILE", options->file, "Ring or secret key file")->required();
  CLI::Option* const open_keys =
      list->add_flag("--public", options->is_public, "Its keys are public, though nothing in it says so");
  list->add_flag("--secret", options->is_secret, "Its keys are secret, though nothing in it says so")
      ->excludes(open_keys);
  list->callback([options] { List(*options); });
}

}  // namespace mqcat
