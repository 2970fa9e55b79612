// scenarios.hh - what is done in which order, from the first node to the last one's end.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include "socksin/options.h"
#include "socksin/sysinfo.h"
#include "sockutil/sockutil.h"
#include "tests/faults/app.hh"

namespace faults {

constexpr int kHighDescriptor = 1100;  // a wait allocates for it
constexpr int kShortPause = 3;         // pauses of the library until the rest of a header arrives
constexpr int kLongestPause = 500;     // sleeps, until the network is up
constexpr int kLimit = 5;              // writes in a full queue

inline const std::string kHeaderBytes = Wire(1, 1000).substr(0, kHeader);

inline std::string folder;  // the shell writes into it
inline int pauses;
inline std::function<void()> after_pauses;

// The system takes a part of a message, then nothing for a while: writes are queued, until the limit refuses one.
inline void Fill(App* app, Link* link) {
  const std::vector<size_t> sizes = app->Sizes(*link);
  MQNode* const node = link->nodes[0];
  node->writeLimit = kLimit;
  Platform::Limit("send", {100});
  Platform::Fail("send", 2, EAGAIN, 2);
  Platform::Fail("sendto", 1, EAGAIN, 2);
  for (size_t i = 0; i < kLimit && link->open; ++i) app->Write(link, 0, sizes[i % sizes.size()]);
  const bool full = link->open && node->writesOutstanding == kLimit;
  app->Expect(full || !app->clean(), "the queue does not fill");
  if (full) app->Expect(!app->Write(link, 0, 1), "the limit of outstanding writes does not count");
}

// Messages of all sizes both ways; a queue that is filled and drained; one that is filled and thrown away.
inline void Talk(App* app, bool secure, bool datagram) {
  Link link(secure, datagram);
  MQNode* listener = link.datagram ? nullptr : app->Listener();
  if (app->Open(&link, listener)) {
    for (const size_t size : app->Sizes(link)) {
      for (int from = 0; from < 2; ++from) app->Write(&link, from, size);
      app->Pump({&link});
    }
    if (link.open) Fill(app, &link);
    app->Pump({&link});
    if (link.open) Fill(app, &link);
    if (link.open) {
      mnClearPeningIO(link.nodes[0]);
      app->Expect(!mnIsPendingIO(link.nodes[0]), "a cleared queue is still there");
    }
  }
  app->Close(&link);
  app->Delete(&listener);
}

// Streams, datagrams and a descriptor beyond 1024 in one wait.
inline void Many(App* app) {
  MQNode* listener = app->Listener();
  Link links[] = {Link(), Link(true), Link(), Link(false, true)};
  std::vector<Link*> all;
  for (Link& link : links) {
    app->Open(&link, listener);
    all.push_back(&link);
  }
  if (links[0].open) {
    int32_t* const fd = &links[0].nodes[1]->sock.fd;
    close(std::exchange(*fd, fcntl(*fd, F_DUPFD, kHighDescriptor)));
  }
  for (const bool writing : {false, true}) {
    for (Link* link : all) {
      for (int from = 0; from < 2; ++from) app->Write(link, from, app->Sizes(*link)[writing]);
    }
    app->Pump(all, writing);
  }
  for (Link* link : all) app->Close(link);
  app->Delete(&listener);
}

// A header that arrives in two pieces, browsed on a blocking node over a descriptor that was there before it.
inline void BrowsePieces(App* app) {
  const Peer listener = Peer::Listen(), peer = Peer::Connect(listener.port());
  Peer accepted = listener.Accept();
  SockRec sock;
  CreateSocketFromExisting(&sock, accepted.fd());
  MQNode* node = app->Create([&] { return CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT); });
  if (node == nullptr) return;
  accepted.Release();
  if (const Message msg; msg) {
    peer.Send(kHeaderBytes.substr(0, 10));
    pauses = 0;
    after_pauses = [&] { peer.Send(kHeaderBytes.substr(10)); };
    app->Do("browse", node, [&] { return mnBrowse(msg, node); });
    after_pauses = nullptr;
  }
  app->Delete(&node);
}

// Names instead of numbers, the name of the program, options.
inline void Names(App* app) {
  setenv("TEVRA_HOME", folder.c_str(), 1);
  char name[49] = {};
  int length = 48;
  app->Do("name", [&] { return GetApplName(name, &length); });
  const std::string got = format("{} {}", name, length);
  app->Expect(Lists("UNKNOWN", name) ? length == 0 : got == "FAULTS 6" || got == " 0", "the program is called " + got);
  MQNode* listener = app->Listener("localhost", "faults");
  unsetenv("TEVRA_HOME");
  unlink(format("{}/{}", folder, getpid()).c_str());
  if (listener != nullptr) {
    SockRec* const sock = &listener->sock;
    SockOption option = {SOCK_OPT_RCVBUF, 0, 0};
    app->Do("option", sock, [&] { return GetSocketOptions(sock, &option); });
    app->Do("option", sock, [&] { return SetTcpBuffer(sock, 65536); });
    app->Do("mode", sock, [&] { return BlockSocket(sock); });
  }
  app->Delete(&listener);
}

// What the library asks the system about itself.
inline void Ask(App* app) {
  sockaddr_in address = {AF_INET, htons(1), {htonl(INADDR_LOOPBACK)}, {}};
  char text[256];
  utsname info;
  app->Do("ask", [&] { return ResolveHostName("localhost", text); });
  app->Do("ask", [&] { return MapHostAddrToName(text, &address); });
  app->Do("ask", [&] { return MapServPortToName(text, &address, "tcp"); });
  app->Do("ask", [&] { return GetSysInfo(&info); });
  app->Do("ask", [&] { return bTcpipNotActive(1); });
  pauses = 0;
  app->Twice("a wait for the network", [] { return bWaitForTcpip(0, "faults") == 0; });
  app->Twice("a count of processors", [] { return GetProcessorCount() > 0; });
}

inline void System(App* app) {
  Names(app);
  BrowsePieces(app);
  Ask(app);
}

struct Scenario {
  std::string name;
  void (*run)(App* app);
  bool streams = false;  // its receives may be cut
  size_t cut = 0;        // every send and receive moves at most so many bytes; 0: what the system takes
};

const Scenario kScenarios[] = {
    {"plain", [](App* app) { Talk(app, false, false); }, true},
    {"signed", [](App* app) { Talk(app, true, false); }, true},
    {"datagram", [](App* app) { Talk(app, false, true); }},
    {"signed-datagram", [](App* app) { Talk(app, true, true); }},
    {"trickle", [](App* app) { Talk(app, false, false); }, true, 50},
    {"signed-trickle", [](App* app) { Talk(app, true, false); }, true, 50},
    {"waits", Many},
    {"system", System},
};

// What the system is while a scenario runs: names, the shell, time.
inline void PreparePlatform() {
  Platform::Reset();
  Platform::SkipPauses();
  Platform::AddService("faults", "tcp", 0);
  Platform::AddService("one", "tcp", 1);
  // A wait for a network that never comes has no end: this one comes.
  Platform::OnPause([] {
    if (++pauses == kLongestPause) Platform::Mend();
    if (pauses == kShortPause && after_pauses) after_pauses();
  });
  Platform::OnSystem([](const char*) {
    FILE* const file = fopen(format("{}/{}", folder, getpid()).c_str(), "w");
    if (file == nullptr) return -1;
    fputs("faults\n", file);
    return fclose(file);
  });
}

}  // namespace faults
