// send.cc - mqcat send: messages from the command line, from JSON or from standard input, to one peer.
#include <unistd.h>

#include <memory>
#include <thread>

#include "input.hh"
#include "link.hh"
#include "message.hh"
#include "options.hh"
#include "output.hh"
#include "show.hh"
#include "signals.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxLine = 256u << 20;
constexpr auto kProgressAfter = std::chrono::seconds(1);
constexpr auto kProgressEvery = std::chrono::milliseconds(200);

struct Options {
  std::string host, service;
  uint32_t command = 0;
  std::vector<std::string> params;
  std::vector<std::string> files;
  std::string json;
  bool from_input = false;
  uint64_t repeat = 1;
  double interval = 0;
  double timeout = 10;
  bool reply = false;
  bool udp = false;
  bool quiet = false;
  std::string sign, ring, user;
  std::string format = "text";
};

class Sender {
 public:
  explicit Sender(const Options& options)
      : options_(options),
        transport_(options.udp ? Transport::kUdp : Transport::kTcp),
        security_(LoadSecurity(options.sign, options.user, options.ring)),
        msg_(NewMessage()) {}

  void Connect() {
    const SockAddrRec target = MakeAddress(options_.host, options_.service, transport_);
    link_ = std::make_unique<Link>(target, transport_, In(options_.timeout));
    link_->Use(&security_);
    if (!options_.reply) link_->DiscardAnswers();
    if (options_.sign.empty()) link_->set_user(options_.user);
  }

  PcfMessage* message() { return msg_.get(); }

  // Sends the message that message() holds, as often as asked.
  void SendRepeated() {
    for (uint64_t i = 0; i < options_.repeat; ++i) {
      if (sent_ != 0) Pause();
      SendOnce();
    }
  }

  void Finish() {
    link_->Close(In(options_.timeout));
    ShowProgress("");
    Flush();
    if (!options_.quiet) Note(Summary());
  }

  std::string Summary() const {
    std::string text = "sent " + Count(sent_, "message") + ", " + Count(bytes_, "byte");
    if (link_) text += " to " + link_->target();
    if (options_.reply) text += fmt::format("; {} answered", answered_);
    return text;
  }

 private:
  void SendOnce() {
    if (Interrupted()) throw Failure{kExitInterrupted, "interrupted"};
    link_->Write(msg_.get(), In(options_.timeout));
    ++sent_;
    bytes_ += msg_->raw.length;
    if (options_.reply) AwaitReply();
    Progress();
  }

  void AwaitReply() {
    if (reply_ == nullptr) reply_ = NewMessage();
    link_->Drain(In(options_.timeout));
    if (!link_->Read(reply_.get(), In(options_.timeout))) {
      if (Interrupted()) throw Failure{kExitInterrupted, "interrupted"};
      throw Failure{kExitTimeout, fmt::format("answer from {} to message {}: none within {} s", link_->target(), sent_,
                                              options_.timeout)};
    }
    ++answered_;
    ShowMessage(reply_.get(), link_->target(), security_.check, ShowFormatOf(options_.format));
    Flush();
  }

  void Pause() const {
    const auto end = In(options_.interval);
    while (!Interrupted() && Clock::now() < end) {
      std::this_thread::sleep_for(std::min<Clock::duration>(end - Clock::now(), std::chrono::milliseconds(100)));
    }
  }

  void Progress() {
    const auto now = Clock::now();
    if (!shows_progress_ || now - start_ < kProgressAfter || now - shown_ < kProgressEvery) return;
    shown_ = now;
    ShowProgress(Count(sent_, "message") + ", " + Count(bytes_, "byte"));
  }

  const Options& options_;
  Transport transport_;
  Security security_;
  MessagePtr msg_;
  MessagePtr reply_;
  std::unique_ptr<Link> link_;
  uint64_t sent_ = 0;
  uint64_t answered_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point shown_ = start_;
  bool shows_progress_ = !options_.quiet && NotesAreOnTerminal();
};

// "PATH" or "ID=PATH"; the id is 1 when none is given. A path may hold '='.
ParamSpec FileParam(const std::string& text) {
  const size_t equals = text.find('=');
  const auto id = ParseNumber<uint32_t>(text.substr(0, equals), 0, UINT32_MAX);
  if (equals != std::string::npos && id) return {*id, "file", text.substr(equals + 1)};
  return {1, "file", text};
}

void BuildFromOptions(PcfMessage* msg, const Options& options) {
  BeginMessage(msg, options.command);
  for (const std::string& param : options.params) AddParam(msg, ParseParam(param));
  for (const std::string& file : options.files) AddParam(msg, FileParam(file));
}

void SendLines(Sender& sender) {
  LineReader reader(kMaxLine);
  while (const auto line = reader.Next()) {
    if (line->find_first_not_of(" \t\r") == std::string::npos) continue;
    MessageFromJson(sender.message(), *line, {"standard input", reader.number()});
    sender.SendRepeated();
  }
  if (Interrupted()) throw Failure{kExitInterrupted, "interrupted"};
}

void SendAll(Sender& sender, const Options& options, bool from_input) {
  // What is on the command line is checked before anybody is called.
  if (!options.json.empty()) {
    MessageFromJson(sender.message(), options.json, {"--json"});
  } else if (!from_input) {
    BuildFromOptions(sender.message(), options);
  }
  sender.Connect();
  from_input ? SendLines(sender) : sender.SendRepeated();
  sender.Finish();
}

void RunSend(const Options& options, bool has_command) {
  CatchSignals();
  const bool from_line = has_command || !options.params.empty() || !options.files.empty();
  if ((from_line ? 1 : 0) + (options.json.empty() ? 0 : 1) + (options.from_input ? 1 : 0) > 1) {
    throw Failure{kExitUsage, "send: give the message once: -c with -p and --file, or --json, or --stdin"};
  }
  const bool from_input = !from_line && options.json.empty();
  if (from_input && isatty(STDIN_FILENO)) Note("reading messages as JSON from the terminal, one a line; Ctrl-D ends");
  Sender sender(options);
  try {
    SendAll(sender, options, from_input);
  } catch (Failure& failure) {
    if (!failure.text.empty() && !options.quiet && failure.code != kExitUsage) {
      failure.text += "\n  " + sender.Summary();
    }
    throw;
  }
}

void AddMessageOptions(CLI::App& command, Options& options) {
  AddNumber<uint32_t>(command, "-c,--command", options.command, 0, UINT32_MAX, "Command of the message");
  command
      .add_option("-p,--param", options.params, "Parameter: ID=TEXT or ID:TYPE=VALUE; int32, int64, text, bytes, file")
      ->allow_extra_args(false)
      ->type_name("PARAM");
  command.add_option("--file", options.files, "A file's content as a parameter of bytes (id 1 when none is given)")
      ->allow_extra_args(false)
      ->type_name("[ID=]PATH");
  command.add_option("--json", options.json, "The message as JSON")->type_name("JSON");
  command.add_flag("--stdin", options.from_input, "Messages from standard input, one JSON object a line (the default)");
}

void AddSendingOptions(CLI::App& command, Options& options) {
  AddNumber<uint64_t>(command, "--repeat", options.repeat, 1, UINT64_MAX, "Send each message so often");
  AddSeconds(command, "--interval", options.interval, 0, 86400, "Pause between messages");
  command.add_flag("--reply", options.reply, "Wait for an answer to each message, and print it");
  AddSeconds(command, "--timeout", options.timeout, 0.001, 86400,
             "Longest wait for a connection, an answer, a full peer");
  command.add_option("--sign", options.sign, "Sign with the secret key in this file")->type_name("KEYFILE");
  command.add_option("--ring", options.ring, "Answers must be signed by a user of this ring")->type_name("FILE");
  command.add_option("--user", options.user, "User of the message, or of the key in the file")
      ->check([](const std::string& user) {
        const bool fits = !user.empty() && user.size() <= MQC_USER_MAX;
        return fits ? "" : fmt::format("{}: a user has 1 to {} characters", Quote(user, 40), MQC_USER_MAX);
      })
      ->type_name("USER");
  command.add_flag("--udp", options.udp, "Datagrams instead of a connection");
  command.add_option("--format", options.format, "Answers as text, json, hex, raw or quiet")
      ->check(CLI::IsMember({"text", "json", "hex", "raw", "quiet"}))
      ->type_name("FORMAT");
  command.add_flag("-q,--quiet", options.quiet, "No summary, no progress");
}

}  // namespace

void AddSend(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("send", "Send messages to a node");
  command->add_option("HOST", options->host, "Name or dotted quad")->required();
  command->add_option("SERVICE", options->service, "Port or service name")->required();
  AddMessageOptions(*command, *options);
  AddSendingOptions(*command, *options);
  command->footer(
      "Examples:\n  mqcat send 127.0.0.1 5000 -c 7 -p 1=hello -p 2:int32=-5 --reply\n"
      "  mqcat send 127.0.0.1 5000 --json '{\"command\":7,\"parameters\":[{\"id\":1,\"value\":\"hello\"}]}'\n"
      "  mqcat listen 5001 --format json | mqcat send 127.0.0.1 5000\n"
      "  mqcat send 127.0.0.1 5000 -c 9 --file 3=photo.jpg --sign alice.key");
  command->callback([options, command] { RunSend(*options, command->count("--command") != 0); });
}

}  // namespace mqcat
