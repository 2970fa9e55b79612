// complete.cc - PROGRAM completion: a script for bash, zsh or fish, made from the options of the commands. In the
// scripts PROGRAM is replaced by the name of the program: mqcat or mqbridge.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "help.hh"
#include "mqnode/errors.h"
#include "options.hh"
#include "output.hh"

namespace mqcat {
namespace {

// What completes a value: one of these words. "@files", "@hosts" and "@interfaces" stand for what the shell finds.
using Words = std::vector<std::string>;

struct Option {
  Words names;  // "-c", "--command"
  std::string about;
  bool has_value = false;
  bool repeats = false;
  std::string type;
  Words values;
};

struct Command {
  std::string path;  // "keys add"; empty for the program itself
  std::string about;
  Words inner;  // names of its own commands
  std::vector<Option> options;
  std::vector<Option> arguments;
};

std::string Join(const Words& words, const std::string& between = " ") {
  return fmt::format("{}", fmt::join(words, between));
}

Words ErrorNames() {
  size_t count = 0;
  const MqErrorInfo* const table = mq_error_table(&count);
  Words names;
  for (size_t i = 0; i < count; ++i) names.emplace_back(table[i].name);
  return names;
}

// The first phrase of a help text, for completions.
std::string Phrase(const std::string& text) {
  size_t end = text.size();
  for (const char* mark : {"; ", ": ", ", ", " ("}) end = std::min(end, text.find(mark));
  return text.substr(0, end);
}

Words NamesOf(const CLI::App& app) {
  Words names;
  for (const CLI::App* inner : app.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); })) {
    names.push_back(inner->get_name());
  }
  return names;
}

// Found by the type's name, which may be followed by the allowed values: "FORMAT:{text,json}".
Words ValuesOf(const std::string& type, const CLI::App& root) {
  const auto is_one_of = [&](std::initializer_list<const char*> names) {
    return std::find(names.begin(), names.end(), type) != names.end();
  };
  if (const size_t open = type.find(":{"); open != std::string::npos) {
    return CLI::detail::split(type.substr(open + 2, type.size() - open - 3), ',');
  }
  if (is_one_of({"FILE", "KEYFILE", "RING", "[ID=]PATH"})) return {"@files"};
  if (is_one_of({"HOST:PORT"})) return {"@hosts"};
  if (is_one_of({"INTERFACE"})) return {"@interfaces"};
  if (is_one_of({"CODE"})) return ErrorNames();
  if (is_one_of({"COMMAND"})) return NamesOf(root);
  return {};
}

Option Describe(const CLI::Option& from, const CLI::App& root) {
  Option option;
  for (const std::string& name : from.get_snames()) option.names.push_back("-" + name);
  for (const std::string& name : from.get_lnames()) option.names.push_back("--" + name);
  option.about = Phrase(from.get_description());
  option.has_value = !from.get_type_name().empty();
  option.repeats = from.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
  const std::string type = from.get_positional() ? from.get_name(true, false) : from.get_type_name();
  option.values = ValuesOf(type, root);
  option.type = type.substr(0, type.find(":{"));
  return option;
}

// All commands, each before its own ones.
void Describe(const CLI::App& app, const std::string& path, const CLI::App& root, std::vector<Command>& commands) {
  Command command{path, Phrase(app.get_description()), NamesOf(app), {}, {}};
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;
    (option->get_positional() ? command.arguments : command.options).push_back(Describe(*option, root));
  }
  commands.push_back(command);
  for (const std::string& name : command.inner) {
    Describe(*app.get_subcommand(name), path.empty() ? name : fmt::format("{} {}", path, name), root, commands);
  }
}

const Command& Inner(const std::vector<Command>& commands, const Command& of, const std::string& name) {
  const std::string path = of.path.empty() ? name : of.path + " " + name;
  return *std::find_if(commands.begin(), commands.end(), [&](const Command& c) { return c.path == path; });
}

// Escapes a text for single quotes, with a backslash before each special character.
std::string Escaped(const std::string& text, std::string_view special, const char* quote) {
  std::string escaped;
  for (const char c : text) {
    if (special.find(c) != std::string_view::npos) escaped += '\\';
    escaped += c == '\'' ? quote : std::string(1, c);
  }
  return escaped;
}

// ---- bash ----

constexpr char kBash[] = R"bash(
# What completes "$value".
_PROGRAM_reply() {
  local word=${1#[=:]}
  case $value in
    '') return ;;
    @files) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    @hosts)
      if declare -F _known_hosts_real >/dev/null; then _known_hosts_real -- "$word"
      else mapfile -t COMPREPLY < <(compgen -A hostname -- "$word"); fi ;;
    @interfaces) mapfile -t COMPREPLY < <(compgen -W "any $(command ls /sys/class/net)" -- "$word") ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$value" -- "$word") ;;
  esac
}

_PROGRAM() {
  local command='' argument=1 options='' inner='' value='' waits='' i word=${COMP_WORDS[COMP_CWORD]}
  COMPREPLY=()
  _PROGRAM_command ''
  for ((i = 1; i < COMP_CWORD; ++i)); do
    local passed=${COMP_WORDS[i]} before=${COMP_WORDS[i - 1]}
    if [[ $passed == [=:] ]]; then continue; fi
    if [[ -n $waits ]]; then waits=''
    elif [[ $passed == -* ]]; then
      value=- && _PROGRAM_value "$command" "$passed"
      [[ $value == - ]] || waits=$passed
    elif [[ " $inner " == *" $passed "* ]]; then
      command=${command:+$command }$passed && _PROGRAM_command "$command"
    elif [[ $before != : ]]; then
      ((++argument))
    fi
  done
  value=''
  if [[ -n $waits ]]; then _PROGRAM_value "$command" "$waits"
  elif [[ $word == -* ]]; then value=$options
  elif [[ -n $inner ]]; then value=$inner
  elif [[ $word != : && ${COMP_WORDS[COMP_CWORD - 1]} != : ]]; then _PROGRAM_value "$command" "$argument"
  fi
  _PROGRAM_reply "$word"
}

complete -F _PROGRAM PROGRAM
)bash";

std::string BashNames(const std::string& path, const Words& names) {
  Words patterns;
  for (const std::string& name : names) patterns.push_back(fmt::format("'{} {}'", path, name));
  return Join(patterns, " | ");
}

std::string Bash(const std::vector<Command>& commands) {
  std::string lists, values;
  for (const Command& command : commands) {
    Words options;
    for (const Option& option : command.options) {
      options.insert(options.end(), option.names.begin(), option.names.end());
      if (!option.has_value) continue;
      values += fmt::format("    {}) value='{}' ;;\n", BashNames(command.path, option.names), Join(option.values));
    }
    lists += fmt::format("    '{}') options='{}' inner='{}' ;;\n", command.path, Join(options), Join(command.inner));
    for (size_t i = 0; i < command.arguments.size(); ++i) {
      const Option& argument = command.arguments[i];
      const std::string number = argument.repeats ? "*" : std::to_string(i + 1);
      if (argument.values.empty()) continue;
      values += fmt::format("    '{} '{}) value='{}' ;;\n", command.path, number, Join(argument.values));
    }
  }
  return "# Completion of PROGRAM for bash, made by PROGRAM completion bash.\n\n"
         "# The options and the commands of a command.\n"
         "_PROGRAM_command() {\n  case $1 in\n" +
         lists +
         "  esac\n}\n\n"
         "# What completes the value of an option or an argument of a command. An option without a value leaves it "
         "alone.\n"
         "_PROGRAM_value() {\n  case \"$1 $2\" in\n" +
         values + "  esac\n}\n" + kBash;
}

// ---- zsh ----

std::string ZshName(const std::string& path) {
  return "_PROGRAM" + CLI::detail::find_and_replace((path.empty() ? "" : "_") + path, " ", "_");
}

std::string ZshAction(const Words& values) {
  const std::string first = values.empty() ? "" : values.front();
  if (first == "@files") return "_files";
  if (first == "@hosts") return "_hosts";
  if (first == "@interfaces") return "_net_interfaces";
  return values.empty() ? " " : "(" + Join(values) + ")";
}

std::string ZshText(const std::string& text) { return Escaped(text, "[]:", "'\\''"); }

std::string ZshOption(const Option& option) {
  const std::string others = option.repeats ? "'*'" : "'(" + Join(option.names) + ")'";
  Words names;
  for (const std::string& name : option.names) {
    names.push_back(name + (!option.has_value ? "" : name[1] == '-' ? "=" : "+"));
  }
  std::string spec = others + (names.size() == 1 ? names.front() : "{" + Join(names, ",") + "}");
  spec += "'[" + ZshText(option.about) + "]";
  if (option.has_value) spec += ":" + ZshText(option.type) + ":" + ZshAction(option.values);
  return spec + "'";
}

std::string ZshFunction(const Command& command, const std::vector<Command>& commands) {
  std::string text = ZshName(command.path) + "() {\n";
  if (!command.inner.empty()) text += "  local context state state_descr line\n  typeset -A opt_args\n";
  text += command.inner.empty() ? "  _arguments -s" : "  _arguments -s -C";
  for (const Option& option : command.options) text += " \\\n    " + ZshOption(option);
  for (size_t i = 0; i < command.arguments.size(); ++i) {
    const Option& argument = command.arguments[i];
    const std::string number = argument.repeats ? "*" : std::to_string(i + 1);
    text += fmt::format(" \\\n    '{}:{}:{}'", number, ZshText(argument.type), ZshAction(argument.values));
  }
  if (command.inner.empty()) return text + "\n}\n\n";
  text +=
      " \\\n    '1:command:->command' \\\n    '*::argument:->argument'\n  case $state in\n    command)\n      local -a "
      "commands=(";
  for (const std::string& name : command.inner) {
    text += "\n        '" + name + ":" + Escaped(Inner(commands, command, name).about, "", "'\\''") + "'";
  }
  text += "\n      )\n      _describe command commands ;;\n    argument)\n      case $words[1] in\n";
  for (const std::string& name : command.inner) {
    text += fmt::format("        {}) {} ;;\n", name, ZshName(Inner(commands, command, name).path));
  }
  return text + "      esac ;;\n  esac\n}\n\n";
}

std::string Zsh(const std::vector<Command>& commands) {
  std::string text = "#compdef PROGRAM\n# Completion of PROGRAM for zsh, made by PROGRAM completion zsh.\n\n";
  for (const Command& command : commands) text += ZshFunction(command, commands);
  return text + "if [[ $funcstack[1] == _PROGRAM ]]; then _PROGRAM \"$@\"; else compdef _PROGRAM PROGRAM; fi\n";
}

// ---- fish ----

constexpr char kFish[] = R"fish(# Completion of PROGRAM for fish, made by PROGRAM completion fish.

# Whether the command line begins with this command, and with no more than that when --only is given.
function __fish_PROGRAM_in
    set -l words (commandline -opc)
    set -l only 0
    if test "$argv[1]" = --only
        set only 1
        set -e argv[1]
    end
    set -l last (math 1 + (count $argv))
    test $only = 0 -o (count $words) = $last; and test "$words[2..$last]" = "$argv" -o (count $argv) = 0
end

complete -c PROGRAM -f
)fish";

std::string FishValues(const Words& values) {
  const std::string first = values.empty() ? "" : values.front();
  if (first == "@files") return " -F";
  if (first == "@hosts") return " -a '(__fish_print_hostnames)'";
  if (first == "@interfaces") return " -a 'any (command ls /sys/class/net)'";
  return values.empty() ? "" : " -a '" + Join(values) + "'";
}

std::string FishText(const std::string& text) { return "'" + Escaped(text, "\\", "\\'") + "'"; }

std::string Fish(const std::vector<Command>& commands) {
  std::string text = kFish;
  for (const Command& command : commands) {
    const std::string in = "complete -c PROGRAM -n '__fish_PROGRAM_in ";
    for (const std::string& name : command.inner) {
      text += fmt::format("{}--only {}' -a {} -d {}\n", in, command.path, name,
                          FishText(Inner(commands, command, name).about));
    }
    const std::string here = in + (command.inner.empty() ? "" : "--only ") + command.path + "'";
    for (const Option& option : command.options) {
      text += here;
      for (const std::string& name : option.names)
        text += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
      const bool is_file = !option.values.empty() && option.values.front() == "@files";
      if (option.has_value) text += (is_file ? " -r" : " -x") + FishValues(option.values);
      text += " -d " + FishText(option.about) + "\n";
    }
    for (const Option& argument : command.arguments) {
      if (!argument.values.empty()) text += here + FishValues(argument.values) + "\n";
    }
  }
  return text;
}

}  // namespace

void AddCompletion(CLI::App& app) {
  auto shell = std::make_shared<std::string>();
  CLI::App* const command = app.add_subcommand("completion", "Print a completion script for bash, zsh or fish");
  command->group("");  // not in the help: the packages install the scripts
  command->add_option("SHELL", *shell, "bash, zsh or fish")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command->callback([&app, shell] {
    std::vector<Command> commands;
    Describe(app, "", app, commands);
    const std::string text = *shell == "bash" ? Bash(commands) : *shell == "zsh" ? Zsh(commands) : Fish(commands);
    Print(CLI::detail::find_and_replace(text, "PROGRAM", app.get_name()));
  });
}

}  // namespace mqcat
