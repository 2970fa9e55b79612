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
#include "trace.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxLine = 256u << 20;
constexpr auto kProgressAfter = std::chrono::seconds(1);
constexpr auto kProgressEvery = std::chrono::milliseconds(200);

struct Options {
  std::vector<std::string> peer;
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
  bool trace = false;
  KeyOptions keys;
  FormatOptions format;
};

class Sender {
 public:
  explicit Sender(const Options& options)
      : options_(options),
        transport_(options.udp ? Transport::kUdp : Transport::kTcp),
        security_(LoadSecurity(options.keys)),
        msg_(NewMessage()) {}

  void Connect() {
    const Place peer = ParsePlace(options_.peer, true);
    const SockAddrRec target = MakeAddress(peer.host, peer.service, transport_);
    link_ = std::make_unique<Link>(target, transport_, In(options_.timeout));
    link_->Use(&security_);
    if (!options_.reply) link_->DiscardAnswers();
    if (options_.keys.sign.empty()) link_->set_user(options_.keys.user);
  }

  PcfMessage* message() { return msg_.get(); }

  // Sends message() as often as --repeat says.
  void SendRepeated() {
    for (uint64_t i = 0; i < options_.repeat; ++i) {
      if (sent_ != 0) Pause();
      SendOnce();
    }
  }

  void Finish() {
    link_->Finish(In(options_.timeout), !options_.reply);
    ShowProgress("");
    Flush();
    if (!options_.quiet)
      Note(Summary(transport_ == Transport::kUdp ? "UDP does not confirm receipt" : "received by the peer's system"));
  }

  // What is known after a failure; empty when nothing was sent.
  std::string PartialSummary() const {
    return link_ && link_->Taken(sent_) != 0 ? "\n  " + Summary("how many the peer has read is not known") : "";
  }

 private:
  // Only answers tell what the peer has read: without them nothing is called sent.
  std::string Summary(const std::string& known) const {
    const uint64_t taken = link_->Taken(sent_);
    std::string text = answered_ == sent_ ? "sent " : "handed to the system: ";
    text += Count(taken, "message");
    if (taken == sent_) text += ", " + Count(bytes_, "byte");
    text += " to " + link_->target() + "; ";
    return text + (options_.reply ? fmt::format("{} answered", answered_) : known);
  }

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
      throw Failure{kExitTimeout, fmt::format("answer from {} to message {}: none within {} s"
                                              "\n  the peer does not answer, or refused the message: its own messages "
                                              "may say why",
                                              link_->target(), sent_, options_.timeout)};
    }
    ++answered_;
    ShowMessage(reply_.get(), link_->target(), security_.check, ShowFormatOf(options_.format.format));
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

// "PATH" or "ID=PATH"; the id is 1 when none is given. A path may contain '='.
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
  // The command line is checked before the connection is made.
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
  CheckFormat(options.format);
  const bool from_line = has_command || !options.params.empty() || !options.files.empty();
  if ((from_line ? 1 : 0) + (options.json.empty() ? 0 : 1) + (options.from_input ? 1 : 0) > 1) {
    throw Failure{kExitUsage, "send: give one message: -c with -p and --file, or --json, or --stdin"};
  }
  const bool from_input = !from_line && options.json.empty();
  if (from_input && isatty(STDIN_FILENO))
    Note("reading messages from the terminal: one JSON object a line, Ctrl-D ends");
  if (options.trace) StartTrace();
  Sender sender(options);
  try {
    SendAll(sender, options, from_input);
  } catch (Failure& failure) {
    if (!failure.text.empty() && !options.quiet) failure.text += sender.PartialSummary();
    throw;
  }
}

void AddMessageOptions(CLI::App& command, Options& options) {
  AddNumber<uint32_t>(command, "-c,--command", options.command, 0, UINT32_MAX, "Command of the message");
  command
      .add_option("-p,--param", options.params,
                  "Add a parameter: ID=TEXT or ID:TYPE=VALUE, with the type int32, int64, text, bytes (in hexadecimal) "
                  "or file (a path)")
      ->allow_extra_args(false)
      ->type_name("PARAM");
  command.add_option("--file", options.files, "Add the content of a file as a parameter; the id is 1 without ID=")
      ->allow_extra_args(false)
      ->type_name("[ID=]PATH");
  command.add_option("--json", options.json, "Send the message that this JSON object describes")->type_name("JSON");
  command.add_flag("--stdin", options.from_input,
                   "Send messages from standard input, one JSON object per line; the default if no message is given");
}

void AddSendingOptions(CLI::App& command, Options& options) {
  AddNumber<uint64_t>(command, "--repeat", options.repeat, 1, UINT64_MAX, "Send each message this many times");
  AddSeconds(command, "--interval", options.interval, 0, 86400, "Pause between messages");
  command.add_flag("--reply", options.reply, "Wait for an answer to each message, and print it");
  AddSeconds(command, "--timeout", options.timeout, 0.001, 86400,
             "Longest wait for the connection, for an answer, and for a peer that does not read");
  AddKeyOptions(command, options.keys, "Sign with the secret key in this file",
                "Accept only answers that are signed by a user in this ring",
                "Name this user as the sender, instead of your login name; with --sign, the user whose key to take");
  AddSealTo(command, options.keys);
  command.add_flag("--udp", options.udp, "Send datagrams; only answers show that they have arrived");
  AddFormat(command, options.format, "Print answers as text, json (one object per line), hex, raw or quiet");
  command.add_flag("-q,--quiet", options.quiet, "Print no summary and no progress");
  command.add_flag("-v,--trace", options.trace, "Print every step of the connection on standard error");
}

}  // namespace

void AddSend(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("send", "Send messages to a node");
  AddPeer(*command, options->peer);
  AddMessageOptions(*command, *options);
  AddSendingOptions(*command, *options);
  command->footer(
      "Only an answer shows that the peer has read a message. Without --reply, a message counts as handed to the "
      "system. If the peer resets the connection, the exit code is 4.\n\n"
      "Examples:\n  mqcat send 127.0.0.1:5000 -c 7 -p 1=hello -p 2:int32=-5 --reply\n"
      "  mqcat send 127.0.0.1:5000 --json '{\"command\":7,\"parameters\":[{\"id\":1,\"value\":\"hello\"}]}'\n"
      "  mqcat listen 5001 --format json | mqcat send 127.0.0.1:5000\n"
      "  mqcat send 127.0.0.1:5000 -c 9 --file 3=photo.jpg --sign alice.key");
  command->callback([options, command] { RunSend(*options, command->count("--command") != 0); });
}

}  // namespace mqcat
