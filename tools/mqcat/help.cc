// help.cc - see help.hh. Also mqcat help.
#include "help.hh"

#include <algorithm>
#include <memory>

#include "options.hh"
#include "output.hh"
#include "show.hh"
#include "suggest.hh"
#include "text.hh"

namespace mqcat {
namespace {

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
    column_width(OutputWidth() < 72 ? 22 : 32);
  }

  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    return Wrap(CLI::Formatter::make_help(app, name, mode), OutputWidth());
  }
  std::string make_description(const CLI::App* app) const override { return app->get_description() + "\n\n"; }
  std::string make_option_name(const CLI::Option* option, bool is_positional) const override {
    if (is_positional) return option->get_name(true, false);
    const std::string name = CLI::detail::find_and_replace(option->get_name(false, true), ",", ", ");
    return option->get_snames().empty() ? "    " + name : name;
  }
  // The allowed values are a part of the type's name, and the help describes them in words of its own.
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return option->get_positional() || type.empty() ? "" : " " + type.substr(0, type.find(':'));
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string standard = option->get_default_str();
    const bool shown = !option->get_type_name().empty() && !standard.empty() && standard != "[]";
    return option->get_description() + (shown ? " (default: " + standard + ")" : "");
  }
  std::string make_option_usage(const CLI::Option* option) const override {
    const bool many = option->get_expected_max() >= CLI::detail::expected_max_vector_size;
    const std::string name = option->get_name(true, false) + (many ? "..." : "");
    return option->get_required() ? name : "[" + name + "]";
  }
};

// The innermost command on the command line.
const CLI::App* Innermost(const CLI::App& app) {
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
  return command;
}

bool IsShown(const CLI::App* command) { return !command->get_group().empty(); }

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands(IsShown)) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::string UnknownText(const std::string& word, const std::string& what, const std::vector<std::string>& known) {
  const std::string meant = Nearest(word, known);
  return Quote(word, 40) + " is not " + what + (meant.empty() ? "" : "; did you mean \"" + meant + "\"?");
}

std::string UnknownCommand(const CLI::App& app, const std::string& word) {
  return UnknownText(word, app.get_parent() == nullptr ? "a command" : "a command of " + FullName(app),
                     CommandNames(app));
}

void RunHelp(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (const std::string& word : words) {
    const auto inner = command->get_subcommands([&](const CLI::App* sub) { return sub->get_name() == word; });
    if (inner.empty()) throw Failure{kExitUsage, UnknownCommand(*command, word)};
    command = inner.front();
  }
  Print(command->get_formatter()->make_help(command, FullName(*command), CLI::AppFormatMode::Normal) + "\n");
}

}  // namespace

void FormatHelp(CLI::App& app) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.option_defaults()->always_capture_default();
  app.set_help_flag("-h,--help", "Print this help");
}

std::string FullName(const CLI::App& command) {
  const CLI::App* const parent = command.get_parent();
  return parent == nullptr ? command.get_name() : FullName(*parent) + " " + command.get_name();
}

std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = *Innermost(app);
  const std::string help =
      "\n  " + FullName(command) + " --help lists " + (CommandNames(command).empty() ? "the options" : "the commands");
  const auto rest = app.remaining(true);
  if (rest.empty()) {
    const bool lacks_command = command.get_require_subcommand_min() != 0;
    return (lacks_command ? FullName(command) + ": a command is missing" : std::string(error.what())) + help;
  }
  const std::string& word = rest.front();
  if (word.size() > 1 && word[0] == '-') {
    const std::string name = word.substr(0, word.find('='));
    return UnknownText(name, "an option of " + FullName(command), OptionNames(command)) + help;
  }
  if (!CommandNames(command).empty()) return UnknownCommand(command, word) + help;
  return FullName(command) + ": unexpected argument " + Quote(word, 40) + help;
}

void AddHelp(CLI::App& app, ExitCode&) {
  auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* const command = app.add_subcommand("help", "Print the help of a command");
  command->add_option("COMMAND", *words, "A command, such as listen or keys add; without one the list of commands");
  command->callback([&app, words] { RunHelp(app, *words); });
}

void AddFormat(CLI::App& app, FormatOptions& options, const std::string& help) {
  app.add_option("--format", options.format, help)
      ->check(CLI::IsMember({"text", "json", "hex", "raw", "quiet"}))
      ->type_name("FORMAT");
  app.add_flag("--force", options.force, "Write raw messages to a terminal, too");
}

void CheckFormat(const FormatOptions& options) {
  if (options.format != "raw" || options.force || !OutputIsTerminal()) return;
  throw Failure{kExitUsage,
                "--format raw: raw bytes can disturb the terminal"
                "\n  redirect standard output, use --format hex, or add --force"};
}

std::string NotEmpty(const std::string& value) { return value.empty() ? "the value is empty" : ""; }

CLI::Option* AddKeyFile(CLI::App& app, const std::string& name, std::string& path, const std::string& help) {
  return app.add_option(name, path, help)->check(NotEmpty)->type_name("KEYFILE");
}

void AddKeyOptions(CLI::App& app, KeyOptions& options, const std::string& sign, const std::string& ring,
                   const std::string& user) {
  AddKeyFile(app, "--sign", options.sign, sign);
  app.add_option("--ring", options.ring, ring)->check(NotEmpty)->type_name("FILE");
  AddUser(app, options.user, user);
}

void AddSealTo(CLI::App& app, KeyOptions& options) {
  app.add_option("--seal-to", options.seal_to,
                 "Encrypt messages for this user of the ring, who alone can read them; open answers that are sealed "
                 "for the signer")
      ->check(NotEmpty)
      ->type_name("USER")
      ->needs("--sign")
      ->needs("--ring");
}

CLI::Option* AddUser(CLI::App& app, std::string& user, const std::string& help) {
  return app.add_option("--user", user, help)
      ->check([](const std::string& name) {
        const bool fits = !name.empty() && name.size() <= MQC_USER_MAX;
        return fits ? "" : fmt::format("{}: a user name has 1 to {} characters", Quote(name, 40), MQC_USER_MAX);
      })
      ->type_name("USER");
}

}  // namespace mqcat
