// peers.hh - the table of honest, rogue and attacking peers, and of what a server logs about each.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <span>

#include "demo/bare.hh"

namespace demo {

// The ports of a server.
enum Port { kPlain, kSigned, kDatagram, kSignedDatagram, kPorts };
constexpr bool IsSigned(Port port) { return port == kSigned || port == kSignedDatagram; }
constexpr bool IsDatagram(Port port) { return port == kDatagram || port == kSignedDatagram; }

// Kinds of honest clients. window: limit of unanswered questions.
struct Kind {
  const char* name;
  Port port;
  uint32_t window;
  bool isLarge;  // messages of up to 4 MiB
};
constexpr Kind kKinds[] = {
    {"TCP plain", kPlain, 1, false},
    {"TCP signed", kSigned, 2, false},
    {"TCP plain, up to 4 MiB", kPlain, 2, true},
    {"TCP signed, up to 4 MiB", kSigned, 2, true},
    {"UDP plain", kDatagram, 1, false},
    {"UDP signed", kSignedDatagram, 1, false},
};
constexpr size_t kKindCount = std::size(kKinds);
constexpr uint32_t kMostClients = 2000;

// The kind of the client with this number. Of 40: 22 small plain ones, 8 signed ones, 1 of each large kind, 4 of each
// datagram kind; the first six are one of each.
constexpr size_t KindOf(uint32_t client) {
  constexpr size_t kTurns[20] = {0, 1, 2, 3, 4, 5, 0, 0, 1, 0, 4, 0, 5, 0, 1, 0, 0, 1, 0, 0};
  const size_t kind = kTurns[client % 20];
  return kKinds[kind].isLarge && client / 20 % 2 != 0 ? 0 : kind;
}

constexpr const char* kHonestOnly = "honest_only";  // no attack: the baseline, on every server

class Arena;

// A peer that breaks the rules: alone as a rogue of the demonstration, in a crowd as an attack.
struct Peer {
  const char* name;
  Port port;
  const char* says;  // logged by the server when it drops the peer; empty if it must serve it
  void (*act)(Arena& arena);
  const char* does = nullptr;                    // as a rogue; null: not a rogue
  size_t answers = 0;                            // that a rogue receives
  Bytes (*message)(const Keys& keys) = nullptr;  // the broken message that it sends
  size_t crowd = 0;                              // how many attack
  const char* attack = nullptr;                  // what the crowd does; null: not an attack
  bool mqcat = false;                            // also an attack on mqcat listen
  rlim_t descriptors = 0;                        // limit of the server; 0: the default
};

std::span<const Peer> Peers();

}  // namespace demo
