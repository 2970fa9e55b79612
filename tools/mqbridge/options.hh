// options.hh - the options of mqbridge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mqbridge {

// How to reach the cluster. Empty members leave the choice to libnats.
struct BusOptions {
  std::string servers = "nats://127.0.0.1:4222";  // separated by commas
  std::string credentials, nkey_user, nkey_seed;  // files, and the public key that belongs to the seed
  std::string user, password, token;
  bool tls = false;
  std::string ca, certificate, key;  // files
};

struct Options {
  BusOptions bus;
  std::vector<std::string> place;  // of the node: HOST:PORT, or HOST and SERVICE
  std::string body = "json";       // or raw
  std::string sign, user, ring;
  bool json = false;
  int metrics = -1;  // port; -1: none
  double status = 10, drain = 10;
  double timeout = 10;  // for an answer
};

struct InOptions : Options {
  std::string subject = "mq.{user}.{command}";
  std::string mode = "request";  // or store
  uint32_t per_client = 64;
  uint64_t memory = 64u << 20;
  uint32_t max_message = 262144;
  int clients = 10000;
  double idle = 600;
};

struct OutOptions : Options {
  std::string subject;
  std::string durable, stream, queue;
  std::string dead_letter;  // subject
  uint32_t in_flight = 16;
  uint64_t max_deliver = 5;
  double ack_wait = 30;
};

// Run until a signal ends them gracefully. Throw a Failure.
void RunIn(const InOptions& options);
void RunOut(const OutOptions& options);

}  // namespace mqbridge
