// body.hh - messages of nodes as bodies and headers of the cluster's messages, and back.
#pragma once

#include <string>
#include <string_view>

#include "bus.hh"
#include "companion/host.h"
#include "mqcat/link.hh"

namespace mqbridge {

// json: {"command": ..., "parameters": [...]}, as mqcat prints and reads it. raw: header and body of the message in
// this host's byte order and ASCII, as the library delivers them.
enum class Form { kJson, kRaw };
Form FormOf(const std::string& name);

std::string ToBody(Form form, const PcfMessage* msg);

// Throws a Failure that says what is wrong with the body.
void FromBody(Form form, std::string_view body, PcfMessage* msg);

// Headers that messages of the bridge carry.
constexpr const char* kUserHeader = "Mq-User";                // the message's user, as the sender claims
constexpr const char* kSignerHeader = "Mq-Signer";            // whose signature was verified; absent if unsigned
constexpr const char* kApplicationHeader = "Mq-Application";  // as the sender claims
constexpr const char* kCommandHeader = "Mq-Command";
constexpr const char* kPeerHeader = "Mq-Peer";
constexpr const char* kErrorHeader = "Mq-Error";  // in an answer: an error text, which replaces the body
constexpr const char* kMsgIdHeader = "Nats-Msg-Id";

// Answers that the bridge itself gives to clients. The reason is parameter 1, a text; the subject is parameter 2.
enum AnswerCommand : uint32_t {
  kStoredAnswer = 0xFFFF0001,       // 1 text: stream, 2 int64: sequence in the stream, 3 int32: 1 for a duplicate
  kNoResponderAnswer = 0xFFFF0002,  // no worker received the message
  kTimeOverAnswer = 0xFFFF0003,     // a worker may have received the message, or it may be stored
  kErrorAnswer = 0xFFFF0004,        // the worker or the cluster has refused the message
};

}  // namespace mqbridge
