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
    "Values in brackets are the defaults. SIGTERM and SIGINT end in order: nothing new is taken, what is in flight is\n"
    "answered. A second signal ends at once.\n"
    "\n"
    "Exit codes: 0 ended by a signal; 2 the command line is wrong, or names a file that cannot be read;\n"
    "4 an address is unknown or in use, or the cluster refuses the bridge; 7 keys; 10 no memory, no descriptors; 1 a "
    "fault of mqbridge itself.";

void AddBus(CLI::App& app, BusOptions& bus) {
  app.add_option("--server", bus.servers, "Members of the cluster, separated by commas (nats://127.0.0.1:4222)")
      ->type_name("URL,...");
  app.add_option("--creds", bus.credentials, "Credentials file for the cluster")->type_name("FILE");
  auto* const nkey = app.add_option("--nkey", bus.nkey_user, "Public NKey for the cluster")->type_name("KEY");
  auto* const seed = app.add_option("--nkey-seed", bus.nkey_seed, "File with the seed of the NKey")->type_name("FILE");
  nkey->needs(seed);
  seed->needs(nkey);
  app.add_option("--nats-user", bus.user,
                 "User of the cluster; password and token come from the environment variables\n"
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
  app.add_option("--body", options.body, "Body of the cluster's messages: json or raw (json)")
      ->check(CLI::IsMember({"json", "raw"}))
      ->type_name("FORM");
  auto* const ring = app.add_option("--ring", options.ring, "Take signed messages only, of the users in this file");
  auto* const sign = app.add_option("--sign", options.sign, "Sign with the secret key in this file");
  ring->type_name("FILE")->needs(sign);
  sign->type_name("KEYFILE")->needs(ring);
  app.add_option("--user", options.user, "Whose key, when the file has several")->type_name("USER");
  app.add_flag("--json", options.json, "Events and status as JSON, one object a line, on standard output");
  AddSeconds(app, "--status", options.status, 0, kLongest, "Between status lines; 0: none (10)");
  AddNumber<int>(app, "--metrics", options.metrics, 0, 65535,
                 "Port of 127.0.0.1 with counters for Prometheus; 0: the system picks one");
  AddSeconds(app, "--drain", options.drain, 0, kLongest, "For what is in flight when a signal comes (10)");
  app.footer(kFooter);
}

void AddIn(CLI::App& app, InOptions& options) {
  CLI::App* const in =
      app.add_subcommand("in", "Clients of a node ask workers of the cluster, or store messages there");
  in->add_option("HOST:PORT", options.place,
                 "Where to listen, also HOST SERVICE; * for everywhere; port 0 lets the system pick one")
      ->required()
      ->expected(1, 2);
  in->add_option("--subject", options.subject,
                 "Where messages are published. {user}, {application}, {command} and {peer} are replaced by what the\n"
                 "message says (mq.{user}.{command})");
  in->add_option(
        "--mode", options.mode,
        "request: a worker's reply is the client's answer; store: the client is answered when a stream has the\n"
        "message (request)")
      ->check(CLI::IsMember({"request", "store"}))
      ->type_name("MODE");
  AddSeconds(*in, "--timeout", options.timeout, 0.1, kLongest, "For an answer of the cluster (10)");
  AddNumber<uint32_t>(*in, "--per-client", options.per_client, 1, 1000000,
                      "Messages of one client without an answer; 1: workers get them one after the other (64)");
  AddNumber<uint64_t>(*in, "--memory", options.memory, 65536, UINT64_MAX / 2,
                      "Bytes of messages without an answer; beyond it clients are not read (67108864)");
  AddNumber<uint32_t>(*in, "--max-message", options.max_message, 256, MQ_MAX_MESSAGE,
                      "Bytes of the longest message (262144)");
  AddNumber<int>(*in, "--clients", options.clients, 1, 1000000, "Most clients at once (10000)");
  AddSeconds(*in, "--idle", options.idle, 0.1, kLongest, "Drop clients that send nothing for so long (600)");
  AddCommon(*in, options);
  in->callback([&options] { RunIn(options); });
}

void AddOut(CLI::App& app, OutOptions& options) {
  CLI::App* const out = app.add_subcommand("out", "Messages of the cluster go to a node, which answers each");
  out->add_option("SUBJECT", options.subject, "Which messages; may have wildcards")->required();
  mqcat::AddPeer(*out, options.place);
  auto* const durable = out->add_option("--durable", options.durable,
                                        "Take messages of a stream, with this durable consumer. It is created if need "
                                        "be.\nBridges with the same one share the messages");
  durable->type_name("CONSUMER");
  out->add_option("--queue", options.queue, "Take messages as a member of this queue group, at most once")
      ->type_name("GROUP")
      ->excludes(durable);
  out->add_option("--stream", options.stream, "The stream (the one that has the subject)")
      ->type_name("STREAM")
      ->needs(durable);
  out->add_option("--dead-letter", options.dead_letter,
                  "Where messages go that cannot be delivered; a stream must have it (dead.CONSUMER)")
      ->type_name("SUBJECT")
      ->needs(durable);
  AddNumber<uint32_t>(*out, "--in-flight", options.in_flight, 1, 10000, "Messages at the peer without an answer (16)");
  AddNumber<uint64_t>(*out, "--max-deliver", options.max_deliver, 1, 1000000, "Deliveries of a message (5)");
  AddSeconds(*out, "--timeout", options.timeout, 0.1, kLongest, "For an answer of the peer (10)");
  AddSeconds(*out, "--ack-wait", options.ack_wait, 1, kLongest,
             "Until the cluster delivers again what a bridge that has died was given (30)");
  AddCommon(*out, options);
  out->callback([&options] { RunOut(options); });
}

int Run(int argc, char** argv) {
  CLI::App app("mqbridge - nodes on one side, a NATS cluster on the other", "mqbridge");
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
    fmt::print(stderr, "mqbridge: {} (mqbridge COMMAND --help says more)\n", mqcat::Plain(error.what()));
    return mqcat::kExitUsage;
  }
  return mqcat::kExitOk;
}

// One line, whatever the text: what follows a newline is advice.
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
