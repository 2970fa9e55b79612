// worker.cc - answers questions that clients ask through mqbridge. Any number of workers, on any machines, form a queue
// group. A worker needs neither nodes nor the library: messages are JSON.
//   worker URL [NAME [COUNT]]
// It answers command 1 with command 2, the same text (parameter 1) and its NAME (parameter 2; default: the process id).
// COUNT: number of answers after which it ends. SIGTERM and SIGINT end it once it has answered the questions received.
#include <nats/nats.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using Json = nlohmann::json;

volatile sig_atomic_t stop = 0;

constexpr char kSubject[] = "mq.*.1";  // command 1 of any user, under the default --subject of mqbridge
constexpr char kGroup[] = "workers";
constexpr int64_t kLookMsec = 200;

// Returns the text of a question. Throws if the message is not a question.
std::string TextOf(natsMsg* question) {
  const char* const data = natsMsg_GetData(question);
  const Json json = Json::parse(data, data + natsMsg_GetDataLength(question));
  for (const Json& param : json.at("parameters")) {
    if (param.at("id") == 1) return param.at("value").get<std::string>();
  }
  throw std::runtime_error("a question has a text, parameter 1");
}

// On errors, a header Mq-Error replaces the body, and the bridge sends the client its own answer for errors.
natsStatus Answer(natsConnection* connection, natsMsg* question, const std::string& name) {
  std::string body, error;
  try {
    body =
        Json{{"command", 2}, {"parameters", {{{"id", 1}, {"value", TextOf(question)}}, {{"id", 2}, {"value", name}}}}}
            .dump();
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  natsMsg* answer = nullptr;
  natsStatus status =
      natsMsg_Create(&answer, natsMsg_GetReply(question), nullptr, body.data(), static_cast<int>(body.size()));
  if (status == NATS_OK && !error.empty()) status = natsMsgHeader_Set(answer, "Mq-Error", error.c_str());
  if (status == NATS_OK) status = natsConnection_PublishMsg(connection, answer);
  natsMsg_Destroy(answer);
  return status;
}

// Works until a signal, or until count answers. After a signal, it only answers the questions that have arrived.
natsStatus Work(natsConnection* connection, natsSubscription* subscription, const std::string& name, long count) {
  for (bool drained = false; count > 0;) {
    if (stop != 0 && !drained) drained = natsSubscription_Drain(subscription) == NATS_OK;
    natsMsg* question = nullptr;
    natsStatus status = natsSubscription_NextMsg(&question, subscription, kLookMsec);
    if (status != NATS_OK && stop != 0) return NATS_OK;
    if (status == NATS_TIMEOUT) continue;
    if (status == NATS_OK && natsMsg_GetReply(question) != nullptr) {
      status = Answer(connection, question, name);
      --count;
    }
    natsMsg_Destroy(question);
    if (status != NATS_OK) return status;
  }
  return NATS_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    fprintf(stderr, "usage: worker URL [NAME [COUNT]]\n");
    return 2;
  }
  const std::string name = argc > 2 ? argv[2] : std::to_string(getpid());
  const long count = argc > 3 ? strtol(argv[3], nullptr, 10) : LONG_MAX;
  for (const int number : {SIGINT, SIGTERM}) signal(number, [](int) { stop = 1; });

  natsOptions* options = nullptr;
  natsConnection* connection = nullptr;
  natsSubscription* subscription = nullptr;
  natsStatus status = natsOptions_Create(&options);
  if (status == NATS_OK) status = natsOptions_SetURL(options, argv[1]);
  if (status == NATS_OK) status = natsOptions_SetMaxReconnect(options, -1);
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, true);  // else an answer may be 1 ms late
  if (status == NATS_OK) status = natsConnection_Connect(&connection, options);
  if (status == NATS_OK) status = natsConnection_QueueSubscribeSync(&subscription, connection, kSubject, kGroup);
  if (status == NATS_OK) status = natsConnection_Flush(connection);
  if (status == NATS_OK) printf("%s is ready\n", name.c_str());
  fflush(stdout);
  if (status == NATS_OK) status = Work(connection, subscription, name, count);
  if (status == NATS_OK) status = natsConnection_Flush(connection);
  if (status != NATS_OK) fprintf(stderr, "worker %s: %s\n", name.c_str(), natsStatus_GetText(status));
  natsSubscription_Destroy(subscription);
  natsConnection_Destroy(connection);
  natsOptions_Destroy(options);
  nats_Close();
  return status == NATS_OK ? 0 : 1;
}
