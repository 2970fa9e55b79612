// scenarios.hh - the scenarios, each from the creation of its nodes to their deletion.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "tests/faults/app.hh"

namespace faults {

constexpr int kHighDescriptor = 1100;  // a wait allocates for it
constexpr int kPauses = 3;             // until the rest of a header arrives
constexpr int kLimit = 5;              // writes in a full queue

// The system accepts a part of a message, then nothing for a while: writes are queued until the limit refuses one.
inline void Fill(App* app, Link* link) {
  const std::vector<size_t> sizes = app->Sizes(*link);
  MQNode* const node = link->nodes[0];
  node->writeLimit = kLimit;
  Platform::Limit("send", {100});
  Platform::Fail("send", 2, EAGAIN, 2);
  Platform::Fail("sendto", 1, EAGAIN, 2);
  for (size_t i = 0; i < kLimit && link->open; ++i) app->Write(link, 0, sizes[i % sizes.size()]);
  const bool full = link->open && node->writesOutstanding == kLimit;
  app->Expect(full || app->kind != Run::kClean, "the queue does not fill");
  if (full) app->Expect(!app->Write(link, 0, 1), "the limit of outstanding writes does not count");
}

// Messages of all sizes in both directions; a queue that is filled and drained; one that is filled and discarded.
inline void Talk(App* app, bool secure, bool datagram) {
  Link link = {secure, datagram};
  MQNode* listener = link.datagram ? nullptr : app->Listener();
  if (app->Open(&link, listener)) {
    for (const size_t size : app->Sizes(link)) {
      for (int from = 0; from < 2; ++from) app->Write(&link, from, size);
      app->Pump({&link, 1});
    }
    if (link.open) Fill(app, &link);
    app->Pump({&link, 1});
    if (link.open) Fill(app, &link);
  }
  app->Close(&link);
  app->Delete(&listener);
}

// Streams, datagrams and a descriptor beyond 1024 in one wait.
inline void Many(App* app) {
  MQNode* listener = app->Listener();
  Link links[] = {{}, {true}, {}, {false, true}};
  for (Link& link : links) app->Open(&link, listener);
  if (links[0].open) {
    int32_t* const fd = &links[0].nodes[1]->sock.fd;
    close(std::exchange(*fd, fcntl(*fd, F_DUPFD, kHighDescriptor)));
  }
  for (Link& link : links) {
    for (int from = 0; from < 2; ++from) app->Write(&link, from, app->Sizes(link)[1]);
  }
  app->Pump(links);
  for (Link& link : links) app->Close(&link);
  app->Delete(&listener);
}

// A header that arrives in two parts, browsed on a blocking node over an existing descriptor.
inline void Browse(App* app) {
  static const std::string header = Wire(1, 1000).substr(0, kHeader);
  const Peer listener = Peer::Listen(), peer = Peer::Connect(listener.port());
  Peer accepted = listener.Accept();
  SockRec sock;
  CreateSocketFromExisting(&sock, accepted.fd());
  MQNode* node = app->Create([&] { return CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT); });
  if (node == nullptr) return;
  accepted.Release();
  if (const Message msg; msg) {
    peer.Send(header.substr(0, 10));
    Platform::OnPause([&, pauses = 0]() mutable {
      if (++pauses == kPauses) peer.Send(header.substr(10));
    });
    app->Do("browse", node, [&] { return mnBrowse(msg, node); });
  }
  app->Delete(&node);
}

// Names of host and service instead of numbers.
inline void Names(App* app) {
  MQNode* listener = app->Listener("localhost", "faults");
  app->Delete(&listener);
}

struct Scenario {
  std::string name;
  void (*run)(App* app);
  bool streams = false;  // its receives may be cut
  size_t cut = 0;        // most bytes moved by a send or receive; 0: no limit
};

const Scenario kScenarios[] = {
    {"plain", [](App* app) { Talk(app, false, false); }, true},
    {"signed", [](App* app) { Talk(app, true, false); }, true},
    {"datagram", [](App* app) { Talk(app, false, true); }},
    {"signed-datagram", [](App* app) { Talk(app, true, true); }},
    {"trickle", [](App* app) { Talk(app, false, false); }, true, 50},
    {"signed-trickle", [](App* app) { Talk(app, true, false); }, true, 50},
    {"waits", Many},
    {"browse", Browse},
    {"names", Names},
};

}  // namespace faults
