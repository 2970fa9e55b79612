// keys.cc - mqcat keys: secret key files and rings of public keys.
#include <memory>

#include "companion/host.h"
#include "input.hh"
#include "keyfile.hh"
#include "options.hh"
#include "output.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxLine = 4096;

struct Options {
  std::string file;
  std::string user;
  std::string key;
  bool replace = false;
  bool secret = false;
};

void PrintKey(const KeyLine& key) { Print(key.user + " " + key.key + "\n"); }

void New(const Options& options) {
  uint8_t secret[MQC_KEY_BYTES], open[MQC_KEY_BYTES];
  char error[256];
  if (!mqc_generate_key(secret, open)) throw Failure{kExitResources, "new key: the system gives no randomness"};
  const int written = mqc_secret_file_write(options.file.c_str(), options.user.c_str(), secret, error, sizeof error);
  mqc_wipe(secret, sizeof secret);
  if (!written) throw Failure{kExitSecurity, fmt::format("new key of {}: {}", Quote(options.user, 40), error)};
  MarkSecretFile(options.file);
  char text[MQC_KEY_TEXT];
  mqc_key_text(open, text);
  PrintKey({options.user, text, 0});
  Flush();
  Note(fmt::format("the secret key is in {}; the line above goes into the rings of those who read", options.file));
}

void Public(const Options& options) { PrintKey(PublicKeyOf(options.file, options.user)); }

std::vector<KeyLine> KeysFromInput() {
  std::vector<KeyLine> keys;
  LineReader reader(kMaxLine);
  while (const auto line = reader.Next()) {
    KeyLine key;
    if (ParseKeyLine(*line, fmt::format("standard input, line {}", reader.number()), key)) keys.push_back(key);
  }
  return keys;
}

void Add(const Options& options) {
  std::vector<KeyLine> keys;
  if (!options.user.empty() && options.key.empty()) {
    throw Failure{kExitUsage, fmt::format("keys add: user {} without a key; give both, or lines on standard input",
                                          Quote(options.user, 40))};
  }
  if (options.user.empty()) {
    keys = KeysFromInput();
  } else {
    KeyLine key;
    ParseKeyLine(options.user + " " + options.key, "keys add", key);
    keys.push_back(key);
  }
  if (keys.empty()) throw Failure{kExitInput, "keys add: standard input holds no key"};
  const size_t changed = AddToRing(options.file, keys, options.replace);
  Note(fmt::format("{} of {} keys are new in {}", changed, keys.size(), options.file));
}

// A secret key is never printed.
void List(const Options& options) {
  if (!options.secret && !IsSecretFile(options.file)) {
    for (const KeyLine& key : ReadRing(options.file)) PrintKey(key);
    return;
  }
  for (const std::string& user : UsersOfSecretFile(options.file)) PrintKey(PublicKeyOf(options.file, user));
  Flush();
  Note(fmt::format("{} holds secret keys; shown are the public ones", options.file));
}

}  // namespace

void AddKeys(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const keys = app.add_subcommand("keys", "Make and look after secret key files and rings of public keys");
  keys->require_subcommand(1);
  keys->footer(
      "A secret key file and a ring hold one key a line: a user and 64 hexadecimal digits.\n\n"
      "Examples:\n  mqcat keys new alice alice.key\n  mqcat keys public alice.key | mqcat keys add ring\n"
      "  mqcat keys list ring\n  mqcat listen 5000 --ring ring\n  mqcat send 127.0.0.1 5000 -c 1 --sign alice.key");

  CLI::App* const fresh = keys->add_subcommand("new", "Make a key pair; print the line for rings");
  fresh->add_option("USER", options->user, "Whose key; 1 to 12 characters, the user of the nodes that sign")
      ->required();
  fresh->add_option("FILE", options->file, "New file for the secret key, readable by its owner alone")->required();
  fresh->callback([options] { New(*options); });

  CLI::App* const open = keys->add_subcommand("public", "Print the line for rings that belongs to a secret key");
  open->add_option("FILE", options->file, "Secret key file")->required();
  open->add_option("USER", options->user, "Whose key, when the file holds several");
  open->callback([options] { Public(*options); });

  CLI::App* const add = keys->add_subcommand("add", "Add public keys to a ring, which is created if need be");
  add->add_option("RING", options->file, "Ring file")->required();
  add->add_option("USER", options->user, "Whose key; without it lines are read from standard input");
  add->add_option("KEY", options->key, "The public key, 64 hexadecimal digits");
  add->add_flag("--replace", options->replace, "Give a user who is there already the new key");
  add->callback([options] { Add(*options); });

  CLI::App* const list = keys->add_subcommand("list", "Print the public keys of a ring or of a secret key file");
  list->add_option("FILE", options->file, "Ring or secret key file")->required();
  list->add_flag("--secret", options->secret, "It holds secret keys, whatever its permissions say");
  list->callback([options] { List(*options); });
}

}  // namespace mqcat
