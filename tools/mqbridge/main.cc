// main.cc - the command line of mqbridge. The manual page lists the same options; keep the two together.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <new>

#include "fmt/format.h"
#include "mqcat/failure.hh"
#include "mqcat/options.hh"
#include "mqcat/output.hh"
#include "mqcat/text.hh"
#include "options.hh"
#include "runtime/message.h"

namespace mqbridge {
namespace {

using mqcat::AddNumber;
using mqcat::AddSeconds;

constexpr double kLongest = 86400;

constexpr char kFooter[] =
    "Defaults are in parentheses. After SIGTERM or SIGINT, mqbridge accepts nothing more, waits for outstanding\n"
    "answers, and ends. A second signal ends it immediately.\n"
    "\n"
    "Exit codes: 0 ended by a signal; 1 internal error; 2 usage error, or a file that cannot be read; 4 an address is\n"
    "unknown or in use, or the cluster and the bridge refuse each other; 7 keys; 10 out of memory or file descriptors.";

void AddBus(CLI::App& app, BusOptions& bus) {
  app.add_option("--server", bus.servers, "Members of the cluster, separated by commas (nats://127.0.0.1:4222)")
      ->type_name("URL,...");
  app.add_option("--creds", bus.credentials, "Credentials file for the cluster")->type_name("FILE");
  auto* const nkey = app.add_option("--nkey", bus.nkey_user, "Public NKey for the cluster")->type_name("KEY");
  auto* const seed = app.add_option("--nkey-seed", bus.nkey_seed, "File with the seed of the NKey")->type_name("FILE");
  nkey->needs(seed);
  seed->needs(nkey);
  app.add_option("--nats-user", bus.user,
                 "User of the cluster. Password and token come from the environment variables\n"
                 "MQBRIDGE_PASSWORD and MQBRIDGE_TOKEN")
      ->type_name("USER");
  app.add_option("--nats-password", bus.password)->envname("MQBRIDGE_PASSWORD")->group("");
  app.add_option("--nats-token", bus.token)->envname("MQBRIDGE_TOKEN")->group("");
  app.add_flag("--tls", bus.tls, "Require TLS, as the options below do");
  app.add_option("--tls-ca", bus.ca, "Certificates to trust, PEM")->type_name("FILE");
  auto* const certificate = app.add_option("--tls-cert", bus.certificate, "Own certificate, PEM")->type_name("FILE");
  auto* const key = app.add_option("--tls-key", bus.key, "Its key, PEM")->type_name("FILE");
  certificate->needs(key);
  key->needs(certificate);
}

void AddCommon(CLI::App& app, Options& options) {
  AddBus(app, options.bus);
  app.add_option("--body", options.body, "Form of the messages in the cluster: json or raw (json)")
      ->check(CLI::IsMember({"json", "raw"}))
      ->type_name("FORM");
  auto* const ring = app.add_option("--ring", options.ring, "Accept only messages signed by a user in this ring");
  auto* const sign = app.add_option("--sign", options.sign, "Sign with the secret key in this file");
  ring->type_name("FILE")->needs(sign);
  sign->type_name("KEYFILE")->needs(ring);
  app.add_option("--user", options.user, "User whose key to take from a file with several keys")->type_name("USER");
  app.add_flag("--json", options.json, "Print events and status as JSON, one object per line, on standard output");
  AddSeconds(app, "--status", options.status, 0, kLongest, "Time between two status lines; 0: none (10)");
  AddNumber<int>(app, "--metrics", options.metrics, 0, 65535,
                 "Port of 127.0.0.1 with counters for Prometheus; 0: chosen by the system");
  AddSeconds(app, "--drain", options.drain, 0, kLongest, "Longest wait for outstanding answers after a signal (10)");
  app.footer(kFooter);
}

void AddIn(CLI::App& app, InOptions& options) {
  CLI::App* const in =
      app.add_subcommand("in", "Listen as a node; send clients' messages to workers or streams of the cluster");
  in->add_option("HOST:PORT", options.place,
                 "Address to listen on, also HOST SERVICE; host *: all addresses; port 0: chosen by the system")
      ->required()
      ->expected(1, 2);
  in->add_option("--subject", options.subject,
                 "Subject to which messages are published. {user}, {application}, {command} and {peer} are\n"
                 "replaced by the values of the message (mq.{user}.{command})");
  in->add_option(
        "--mode", options.mode,
        "request: the reply of a worker is the client's answer; store: the client is answered when a stream has\n"
        "stored the message (request)")
      ->check(CLI::IsMember({"request", "store"}))
      ->type_name("MODE");
  AddSeconds(*in, "--timeout", options.timeout, 0.1, kLongest, "Longest wait for an answer of the cluster (10)");
  AddNumber<uint32_t>(*in, "--per-client", options.per_client, 1, 1000000,
                      "Maximum number of unanswered messages of a client; 1: processed one after the other (64)");
  AddNumber<uint64_t>(*in, "--memory", options.memory, 65536, UINT64_MAX / 2,
                      "Maximum number of bytes of unanswered messages; above it, clients are not read (67108864)");
  AddNumber<uint32_t>(*in, "--max-message", options.max_message, 256, MQ_MAX_MESSAGE,
                      "Maximum size of a message in bytes (262144)");
  AddNumber<int>(*in, "--clients", options.clients, 1, 1000000, "Maximum number of connected clients (10000)");
  AddSeconds(*in, "--idle", options.idle, 0.1, kLongest, "Drop clients that send nothing for this long (600)");
  AddCommon(*in, options);
  in->callback([&options] { RunIn(options); });
}

void AddOut(CLI::App& app, OutOptions& options) {
  CLI::App* const out = app.add_subcommand("out", "Send messages from the cluster to a node, which answers each");
  out->add_option("SUBJECT", options.subject, "Subject of the messages; may contain wildcards")->required();
  mqcat::AddPeer(*out, options.place);
  auto* const durable = out->add_option("--durable", options.durable,
                                        "Take messages from a stream with this durable consumer, created if it does "
                                        "not exist.\nBridges with the same consumer share the messages");
  durable->type_name("CONSUMER");
  out->add_option("--queue", options.queue, "Take messages as a member of this queue group, at most once")
      ->type_name("GROUP")
      ->excludes(durable);
  out->add_option("--stream", options.stream, "Name of the stream (the stream that has the subject)")
      ->type_name("STREAM")
      ->needs(durable);
  out->add_option("--dead-letter", options.dead_letter,
                  "Subject for messages that cannot be delivered; a stream must have it (dead.CONSUMER)")
      ->type_name("SUBJECT")
      ->needs(durable);
  AddNumber<uint32_t>(*out, "--in-flight", options.in_flight, 1, 10000,
                      "Maximum number of messages that the node has not answered (16)");
  AddNumber<uint64_t>(*out, "--max-deliver", options.max_deliver, 1, 1000000,
                      "Number of deliveries after which a message becomes a dead letter (5)");
  AddSeconds(*out, "--timeout", options.timeout, 0.1, kLongest, "Longest wait for an answer of the node (10)");
  AddSeconds(*out, "--ack-wait", options.ack_wait, 1, kLongest,
             "Time after which the cluster delivers the messages of a failed bridge again (30)");
  AddCommon(*out, options);
  out->callback([&options] { RunOut(options); });
}

int Run(int argc, char** argv) {
  CLI::App app("mqbridge - connect message nodes to a NATS cluster", "mqbridge");
  InOptions in;
  OutOptions out;
  app.set_version_flag("--version", std::string("mqbridge ") + MQBRIDGE_VERSION);
  app.require_subcommand(1);
  AddIn(app, in);
  AddOut(app, out);
  mqcat::AddCompletion(app);
  try {
    app.parse(argc, argv);
    mqcat::Flush();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
    fmt::print(stderr, "mqbridge: {} (see mqbridge COMMAND --help)\n", mqcat::Plain(error.what()));
    return mqcat::kExitUsage;
  }
  return mqcat::kExitOk;
}

// Prints the text on one line: newlines, which separate advice, become semicolons.
void Say(std::string_view text) {
  std::string line;
  for (const char c : text) c == '\n' ? line += ';' : line += c;
  fmt::print(stderr, "mqbridge: {}\n", mqcat::Plain(line));
}

}  // namespace
}  // namespace mqbridge

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  try {
    return mqbridge::Run(argc, argv);
  } catch (const mqcat::Failure& failure) {
    mqbridge::Say(failure.text);
    return failure.code;
  } catch (const std::bad_alloc&) {
    mqbridge::Say("no memory");
    return mqcat::kExitResources;
  } catch (const std::exception& error) {
    mqbridge::Say(fmt::format("internal fault: {}", error.what()));
    return mqcat::kExitInternal;
  }
}
