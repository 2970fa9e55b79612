// keys.cc - mqcat keys: secret key files and rings of public keys.
#include <memory>

#include "companion/host.h"
#include "keyfile.hh"
#include "options.hh"
#include "output.hh"
#include "text.hh"

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
  Note(fmt::format("the secret key is in {}; add the line above to the rings of those who read {}'s messages",
                   options.file, options.user));
}

void Public(const Options& options) { PrintKey(PublicKeyOf(options.file, options.user)); }

void Add(const Options& options) {
  // The word in the user's place is not shown: it may be a secret key.
  if (!options.user.empty() && options.key.empty()) {
    throw Failure{kExitUsage, "keys add: a user without a key: give both, or lines on standard input"};
  }
  const Unmarked unmarked = options.is_public ? Unmarked::kPublic : Unmarked::kUnknown;
  std::vector<MqcKey> keys =
      options.user.empty() ? PublicKeysFromInput(unmarked) : std::vector{PublicKeyFrom(options.user, options.key)};
  if (keys.empty()) throw Failure{kExitInput, "keys add: standard input contains no key"};
  for (MqcKey& key : keys) {
    if (!options.until.empty()) key.until = EndOf(options.until);
    if (options.revoke) key.revoked = 1;
  }
  const size_t changed = AddToRing(options.file, keys, options.replace);
  Note(fmt::format("{} of {} new or changed in {}", changed, Count(keys.size(), "key"), options.file));
}

void Remove(const Options& options) {
  const size_t removed = RemoveFromRing(options.file, options.user);
  Note(fmt::format("{} of {} removed from {}", Count(removed, "key"), options.user, options.file));
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
  CLI::App* const keys = app.add_subcommand("keys", "Manage secret key files and rings of public keys");
  keys->require_subcommand(1);

  CLI::App* const fresh = keys->add_subcommand("new", "Generate a key pair, and print its line for rings");
  fresh->add_option("USER", options->user, "Name of 1 to 12 characters; it need not be your login name")->required();
  fresh->add_option("FILE", options->file, "New file for the secret key; only its owner can read it")->required();
  fresh->add_option("--until", options->until, "Last day of the key, UTC (default: no end)")->type_name("YYYY-MM-DD");
  fresh->callback([options] { New(*options); });

  CLI::App* const open = keys->add_subcommand("public", "Print the line for rings of a secret key");
  open->add_option("FILE", options->file, "Secret key file")->required();
  open->add_option("USER", options->user, "User whose key to print, if the file contains several keys");
  open->callback([options] { Public(*options); });

  CLI::App* const add = keys->add_subcommand("add", "Add public keys to a ring; a new file is created");
  add->add_option("RING", options->file, "Ring file")->required();
  add->add_option("USER", options->user, "User of the key; without USER and KEY, lines are read from standard input");
  add->add_option("KEY", options->key, "The public key, 64 hexadecimal digits");
  add->add_option("--until", options->until, "Last day of these keys, UTC (default: the day in their lines)")
      ->type_name("YYYY-MM-DD");
  add->add_flag("--revoke", options->revoke, "Revoke these keys: messages signed with them are refused");
  add->add_flag("--replace", options->replace, "Replace another key of the same user, or another last day");
  add->add_flag("--public", options->is_public, "Accept unmarked keys on standard input as public");
  add->callback([options] { Add(*options); });

  CLI::App* const remove = keys->add_subcommand("remove", "Remove a user's keys from a ring");
  remove->add_option("RING", options->file, "Ring file")->required();
  remove->add_option("USER", options->user, "User whose keys are removed, including revoked ones")->required();
  remove->footer(
      "A removed key can be added again. To disable a key that others may know, use mqcat keys add --revoke.\n\n"
      "Example:\n  mqcat keys remove ring alice");
  remove->callback([options] { Remove(*options); });

  CLI::App* const list = keys->add_subcommand("list", "Print the public keys of a ring or of a secret key file");
  list->add_option("FILE", options->file, "Ring or secret key file")->required();
  CLI::Option* const open_keys = list->add_flag("--public", options->is_public, "Treat unmarked keys as public");
  list->add_flag("--secret", options->is_secret, "Treat unmarked keys as secret, and print their public keys")
      ->excludes(open_keys);
  list->callback([options] { List(*options); });
  keys->footer(
      "A secret key file and a ring contain one key per line: a user, 64 hexadecimal digits, and any of the words "
      "secret or public, until=YYYY-MM-DD, revoked. No secret key is ever printed.\n\n"
      "Examples:\n  mqcat keys new alice alice.key\n  mqcat keys public alice.key | mqcat keys add ring\n"
      "  mqcat keys list ring\n  mqcat keys public alice.key | mqcat keys add ring --revoke\n  mqcat listen 5000 "
      "--ring ring\n  mqcat send 127.0.0.1:5000 -c 1 --sign alice.key");
  for (CLI::App* command : keys->get_subcommands({})) command->group("Commands");
}

}  // namespace mqcat
