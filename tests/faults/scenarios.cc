// scenarios.cc - what is done in which order, from the first node to the last one's end. Everything goes through the host.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "socksin/options.h"
#include "socksin/sysinfo.h"
#include "sockutil/sockutil.h"
#include "tests/faults/faults.hh"

namespace faults {

namespace {

constexpr int kHighDescriptor = 1100;  // a wait allocates for it
constexpr int kShortPause = 3;         // pauses of the library until the rest of a header arrives
constexpr int kLongestPause = 500;     // sleeps, until the network is up
constexpr int kFilled = 6;             // writes in a queue that is full enough

int pauses;
std::function<void()> after_pauses;

// Messages of all sizes both ways.
void Exchange(Host* host, Link* link) {
  for (const size_t size : host->Sizes(*link)) {
    for (int from = 0; from < 2; ++from) host->Write(link, from, size);
    host->Pump({link});
  }
}

void Stream(Host* host, bool secure, bool blocking) {
  MQNode* listener = host->Listener();
  Link link(secure, blocking);
  if (host->Connect(&link, listener)) Exchange(host, &link);
  host->Close(&link);
  host->Delete(&listener);
}

void Plain(Host* host) { Stream(host, false, false); }
void Signed(Host* host) { Stream(host, true, false); }
void Both(Host* host) {
  for (const bool secure : {false, true}) Stream(host, secure, false);
}
void Blocking(Host* host) {
  for (const bool secure : {false, true}) Stream(host, secure, true);
}

void Datagram(Host* host) {
  for (const bool secure : {false, true}) {
    Link link(secure);
    if (host->Bind(&link)) Exchange(host, &link);
    // The system takes no datagrams now and then: they are queued, each with its destination.
    Platform::Fail("sendto", 1, EAGAIN, 2);
    if (link.open) Exchange(host, &link);
    host->Close(&link);
  }
}

// Writes until kFilled messages are queued; the next one is refused by the limit.
void Fill(Host* host, Link* link) {
  const std::vector<size_t> sizes = host->Sizes(*link);
  MQNode* const node = link->nodes[0];
  node->writeLimit = kFilled;
  for (size_t i = 0; i < 60 && link->open && node->writesOutstanding < kFilled; ++i) {
    host->Write(link, 0, node->pending == nullptr ? sizes.back() : sizes[i % sizes.size()]);
  }
  if (!link->open) return;
  const bool full = node->writesOutstanding == kFilled;
  host->Expect(full || !host->clean(), "the queue does not fill");
  if (!full) return;
  host->Expect(!host->Write(link, 0, sizes[0]) && (!host->clean() || node->error == MQ_WRITE_LIMIT),
               "the limit of outstanding writes does not count");
}

// Fills the queue and drains it, twice; fills it once more and throws it away.
void Drain(Host* host) {
  MQNode* listener = host->Listener();
  if (listener != nullptr) mnSetBufferSize(listener, 65536);
  Link link;
  if (host->Connect(&link, listener)) {
    mnSetBufferSize(link.nodes[0], 65536);
    for (int i = 0; i < 3 && link.open; ++i) {
      Fill(host, &link);
      if (i < 2) host->Pump({&link});
    }
    if (link.open) {
      mnClearPeningIO(link.nodes[0]);
      host->Expect(!mnIsPendingIO(link.nodes[0]), "a cleared queue is still there");
    }
  }
  host->Close(&link);
  host->Delete(&listener);
}

// Streams, datagrams and a descriptor beyond 1024 in one wait, by each of the six forms.
void Many(Host* host) {
  MQNode* listener = host->Listener();
  Link links[] = {Link(), Link(true), Link(), Link(), Link()};
  std::vector<Link*> all;
  for (Link& link : links) {
    &link == links + 4 ? host->Bind(&link) : host->Connect(&link, listener);
    all.push_back(&link);
  }
  if (links[0].open) {
    int& fd = links[0].nodes[1]->sock.fd;
    const int low = std::exchange(fd, fcntl(fd, F_DUPFD, kHighDescriptor));
    close(low);
  }
  for (int form = 0; form < kWaitForms; ++form) {
    for (Link* link : all) {
      for (int from = 0; from < 2; ++from) host->Write(link, from, host->Sizes(*link)[form % 2]);
    }
    host->Pump(all, form);
  }
  SockPostData work;
  host->Do("wait", [&] {
    const int result = InitSocketPostData(&work, 8);
    return result ? Outcome{1, 0} : Outcome{0, kUntouched};
  });
  FreeSocketPostData(&work);
  for (Link* link : all) host->Close(link);
  host->Delete(&listener);
}

// A header that arrives in two pieces, browsed on a blocking node over a descriptor that was there before it.
void BrowsePieces(Host* host) {
  const Peer listener = Peer::Listen(), peer = Peer::Connect(listener.port());
  Peer accepted = listener.Accept();
  SockRec sock;
  CreateSocketFromExisting(&sock, accepted.fd());
  MQNode* node = host->Create([&] { return CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT); });
  if (node == nullptr) return;
  accepted.Release();
  if (PcfMessage* const msg = mqc_message_new(0); msg != nullptr) {
    MsgHeader header = {};
    header.hdrLength = sizeof header;
    header.asciiText = 1;
    header.bodyLength = 1000;
    const std::string_view bytes(reinterpret_cast<const char*>(&header), sizeof header);
    peer.Send(bytes.substr(0, 10));
    pauses = 0;
    after_pauses = [&] { peer.Send(bytes.substr(10)); };
    host->Do("browse", [&] { return Outcome{mnBrowse(msg, node), node->error}; });
    after_pauses = nullptr;
    mqc_message_free(msg);
  }
  host->Delete(&node);
}

// Names instead of numbers, the name of the program, options.
void Names(Host* host, const char* folder) {
  setenv("TEVRA_HOME", folder, 1);
  char name[49] = {};
  int length = 48;
  host->Do("name", [&] { return Outcome{GetApplName(name, &length), 0}; });
  const std::string_view got = name;
  host->Expect((got == "UNKNOWN" && length == 0) || ((got == "FAULTS" || got.empty()) && length == int(got.size())),
               fmt::format("the application is called '{}', of length {}", got, length));
  MQNode* listener = host->Listener("localhost", "faults");
  unsetenv("TEVRA_HOME");
  unlink(fmt::format("{}/{}", folder, getpid()).c_str());
  if (listener != nullptr) {
    SockRec* const sock = &listener->sock;
    SockOption option = {SOCK_OPT_RCVBUF, 0, 0};
    host->Do("option", [&] { return Outcome{GetSocketOptions(sock, &option), sock->error}; });
    host->Do("option", [&] { return Outcome{SetTcpBuffer(sock, 65536), sock->error}; });
    host->Do("option", [&] { return Outcome{ReuseSocket(sock, 1), sock->error}; });
    host->Do("mode", [&] { return Outcome{NoblockSocket(sock), sock->error}; });
    host->Do("mode", [&] { return Outcome{BlockSocket(sock), sock->error}; });
  }
  host->Delete(&listener);
}

// What the library asks the system about itself.
void Ask(Host* host) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(1);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char text[256];
  utsname info;
  host->Do("ask", [&] { return Outcome{ResolveHostName("localhost", text), 0}; });
  host->Do("ask", [&] { return Outcome{MapHostAddrToName(text, &address), 0}; });
  host->Do("ask", [&] { return Outcome{MapServPortToName(text, &address, "tcp"), 0}; });
  host->Do("ask", [&] { return Outcome{GetSysInfo(&info), 0}; });
  host->Do("ask", [&] { return Outcome{bTcpipNotActive(1), 0}; });
  pauses = 0;
  host->Twice("a wait for the network", [] { return bWaitForTcpip(0, "faults") == 0; });
  host->Twice("a count of processors", [] { return GetProcessorCount() > 0; });
}

void System(Host* host) {
  Names(host, getenv("MQFAULTS_FOLDER"));
  BrowsePieces(host);
  Ask(host);
}

const Scenario kScenarios[] = {
    {"plain", "connect, exchange plain messages of three sizes, close", Plain, 0, true},
    {"signed", "the same, signed", Signed, 0, true},
    {"blocking", "browse, read and write on blocking nodes, plain and signed", Blocking, 0, true},
    {"trickle", "short messages, plain and signed, 7 bytes a transfer", Both, 7, true},
    {"drain", "fill the queue to its limit, drain it, throw it away", Drain, 0, true},
    {"datagram", "plain and signed datagrams of three sizes, sent at once and queued", Datagram, 0, false},
    {"many", "wait on streams, datagrams and a descriptor beyond 1024 in six ways", Many, 0, false},
    {"system", "lookups, options, the application's name, the host", System, 0, false},
};

}  // namespace

std::span<const Scenario> Scenarios() { return kScenarios; }

void PreparePlatform() {
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
    FILE* const file = fopen(fmt::format("{}/{}", getenv("MQFAULTS_FOLDER"), getpid()).c_str(), "w");
    if (file == nullptr) return -1;
    fputs("faults\n", file);
    fclose(file);
    return 0;
  });
}

}  // namespace faults
