// worker.cc - answers questions that clients ask through mqbridge: one of any number of workers in a queue group, on
// any machine. It needs neither nodes nor the library: a message is JSON.
//   worker URL [NAME [COUNT]]
// It answers command 1 with command 2 and the same text, parameter 1; parameter 2 is NAME (the process id): who
// answered. COUNT: answers until it ends. SIGTERM and SIGINT end it; what it has begun is answered.
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

constexpr char kSubject[] = "mq.*.1";  // command 1 of any user, with the default of mqbridge in --subject
constexpr char kGroup[] = "workers";
constexpr int64_t kLookMsec = 200;

// The text of a question; what is not a question has none and throws.
std::string TextOf(natsMsg* question) {
  const char* const data = natsMsg_GetData(question);
  const Json json = Json::parse(data, data + natsMsg_GetDataLength(question));
  for (const Json& param : json.at("parameters")) {
    if (param.at("id") == 1) return param.at("value").get<std::string>();
  }
  throw std::runtime_error("a question has a text, parameter 1");
}

// A header Mq-Error in place of a body: the client gets the bridge's answer for errors.
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

// Until a signal, or the last of count answers. After a signal nothing new comes; what is here already is answered.
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
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, true);  // else an answer may wait a millisecond
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
