// scenarios.cc - the scenarios: what is done in which order. Everything they do goes through the host.
#include "tests/faults/scenarios.hh"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "socksin/options.h"
#include "socksin/sysinfo.h"
#include "sockutil/sockutil.h"
#include "tests/support/fixture.hh"

namespace faults {

namespace {

constexpr int kHighDescriptor = 1100;  // a wait allocates for it
constexpr int kShortPause = 3;         // pauses of the library until the rest of a header arrives
constexpr int kLongestPause = 500;     // sleeps, until the host's network is up
constexpr int kFilled = 6;             // writes that stand in the queue when it is full enough

int pauses;
std::function<void()> after_pauses;

// Messages of all sizes both ways; small ones one way.
void Exchange(Host* host, Link* link) {
  for (const size_t size : host->Sizes(*link)) {
    for (int end = 0; end < 2; ++end) {
      if (!host->small || end == link->secure) host->Write(link, end, size);
    }
    host->Pump({link});
  }
}

void Stream(Host* host, bool secure) {
  MQNode* listener = host->Listener();
  Link link;
  link.secure = secure;
  if (host->Connect(&link, listener)) Exchange(host, &link);
  host->Close(&link);
  host->Delete(&listener);
}

void Plain(Host* host) { Stream(host, false); }
void Signed(Host* host) { Stream(host, true); }

void Trickle(Host* host) {
  host->small = true;
  Stream(host, false);
  Stream(host, true);
}

void Datagram(Host* host) {
  for (const bool secure : {false, true}) {
    Link link;
    link.secure = secure;
    if (host->Bind(&link)) Exchange(host, &link);
    // The system has no room for datagrams now and then: they are queued, each with its destination.
    Platform::Fail("sendto", 1, EAGAIN, 2);
    if (link.open) Exchange(host, &link);
    host->Close(&link);
  }
}

void Blocking(Host* host) {
  MQNode* listener = host->Listener();
  for (const bool secure : {false, true}) {
    Link link;
    link.secure = secure;
    host->Connect(&link, listener, true);
    for (const size_t size : host->Sizes(link)) {
      host->Write(&link, 0, size);
      host->PumpBlocking(&link);
      host->Write(&link, 1, size);
      host->PumpBlocking(&link);
    }
    host->Close(&link);
  }
  host->Delete(&listener);
}

// Writes until kFilled messages are queued; the next one is refused by the limit.
void Fill(Host* host, Link* link) {
  const std::vector<size_t> sizes = host->Sizes(*link);
  MQNode* const node = link->ends[0].node;
  node->writeLimit = kFilled;
  for (size_t i = 0; i < 60 && link->open && node->writesOutstanding < kFilled; ++i) {
    host->Write(link, 0, node->pending == nullptr ? sizes.back() : sizes[i % sizes.size()]);
  }
  if (!link->open) return;
  const bool full = node->writesOutstanding == kFilled;
  if (!full && host->clean()) host->Fell("the queue does not fill");
  if (full && (host->Write(link, 0, sizes[0]) || (host->clean() && node->error != MQ_WRITE_LIMIT))) {
    host->Fell("the limit of outstanding writes does not hold");
  }
}

// Fills the queue and drains it, twice; fills it once more and throws it away.
void Drain(Host* host) {
  MQNode* listener = host->Listener();
  if (listener != nullptr) mnSetBufferSize(listener, 65536);
  Link link;
  if (host->Connect(&link, listener)) {
    mnSetBufferSize(link.ends[0].node, 65536);
    for (int i = 0; i < 2 && link.open; ++i) {
      Fill(host, &link);
      host->Pump({&link});
    }
    if (link.open) Fill(host, &link);
    if (link.open) {
      mnClearPeningIO(link.ends[0].node);
      if (mnIsPendingIO(link.ends[0].node)) host->Fell("a cleared queue is still there");
    }
  }
  host->Close(&link);
  host->Delete(&listener);
}

// A connected pair of plain descriptors; the second is a high one.
void MakePair(int* first, int* second) {
  const Peer listener = Peer::Listen();
  Peer client = Peer::Connect(listener.port());
  Peer accepted = listener.Accept();
  *first = client.Release();
  *second = fcntl(accepted.fd(), F_DUPFD, kHighDescriptor);
  if (*second < 0) abort();
}

// Streams, datagrams and a descriptor beyond 1024 in one wait, by each of the six forms.
void Many(Host* host) {
  MQNode* listener = host->Listener();
  Link links[6];
  links[1].secure = true;
  for (int i = 0; i < 4; ++i) host->Connect(&links[i], listener);
  host->Bind(&links[4]);
  int first = -1;
  int second = -1;
  MakePair(&first, &second);
  host->Adopt(&links[5], first, second);
  std::vector<Link*> all;
  for (Link& link : links) all.push_back(&link);
  for (int form = 0; form < kWaitForms; ++form) {
    for (Link* link : all) {
      for (int end = 0; end < 2; ++end) host->Write(link, end, host->Sizes(*link)[form % 2]);
    }
    host->Pump(all, form);
  }
  SockPostData work;
  host->Do(Op::kWait, [&] {
    const int result = InitSocketPostData(&work, 8);
    return result ? Came{1, 0} : Came{0, kUntouched};
  });
  FreeSocketPostData(&work);
  for (Link* link : all) host->Close(link);
  host->Delete(&listener);
}

// A header that arrives in two pieces, browsed on a blocking node.
void BrowsePieces(Host* host) {
  int fds[2];
  MakePair(&fds[0], &fds[1]);
  SockRec sock;
  CreateSocketFromExisting(&sock, fds[0]);
  const Peer peer = Peer::Adopt(fds[1]);
  MQNode* node = host->Create([&] { return CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT); });
  if (node == nullptr) {
    DeleteSocket(&sock);
    return;
  }
  if (PcfMessage* const msg = mqc_message_new(0); msg != nullptr) {
    MsgHeader header = {};
    header.hdrLength = sizeof header;
    header.asciiText = 1;
    header.bodyLength = 1000;
    const std::string_view bytes(reinterpret_cast<const char*>(&header), sizeof header);
    peer.Send(bytes.substr(0, 10));
    pauses = 0;
    after_pauses = [&] { peer.Send(bytes.substr(10)); };
    host->DoOn(Op::kBrowse, node, [&] { return mnBrowse(msg, node); });
    after_pauses = nullptr;
    mqc_message_free(msg);
  }
  host->Delete(&node);
}

// Names instead of numbers, and what the library asks its host about.
void Names(Host* host) {
  setenv("TEVRA_HOME", getenv("MQFAULTS_FOLDER"), 1);
  char name[49] = {};
  int length = 48;
  host->Do(Op::kName, [&] { return Came{GetApplName(name, &length), 0}; });
  if (strcmp(name, "FAULTS") != 0 && strcmp(name, "UNKNOWN") != 0 && name[0] != '\0') {
    host->Fell("the application is called " + std::string(name));
  }
  if (length != (strcmp(name, "UNKNOWN") == 0 ? 0 : static_cast<int>(strlen(name)))) host->Fell("a name of no length");
  MQNode* listener = host->Listener("localhost", "faults");
  unsetenv("TEVRA_HOME");
  unlink((std::string(getenv("MQFAULTS_FOLDER")) + "/" + std::to_string(getpid())).c_str());
  if (listener != nullptr) {
    SockRec* const sock = &listener->sock;
    const auto came = [&](int result) { return Came{result, sock->error}; };
    SockOption option = {SOCK_OPT_RCVBUF, 0, 0};
    host->Do(Op::kOption, [&] { return came(GetSocketOptions(sock, &option)); });
    host->Do(Op::kOption, [&] { return came(SetTcpBuffer(sock, 65536)); });
    host->Do(Op::kOption, [&] { return came(ReuseSocket(sock, 1)); });
    host->Do(Op::kMode, [&] { return came(NoblockSocket(sock)); });
    host->Do(Op::kMode, [&] { return came(BlockSocket(sock)); });
  }
  host->Delete(&listener);
  BrowsePieces(host);

  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(1);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char text[256];
  utsname info;
  host->Do(Op::kAsk, [&] { return Came{ResolveHostName("localhost", text), 0}; });
  host->Do(Op::kAsk, [&] { return Came{MapHostAddrToName(text, &address), 0}; });
  host->Do(Op::kAsk, [&] { return Came{MapServPortToName(text, &address, "tcp"), 0}; });
  host->Do(Op::kAsk, [&] { return Came{GetSysInfo(&info), 0}; });
  host->Do(Op::kAsk, [&] { return Came{bTcpipNotActive(1), 0}; });
  pauses = 0;
  host->Twice("a wait for the network", [&] { return bWaitForTcpip(0, "faults") == 0; });
  host->Twice("a count of processors", [] { return GetProcessorCount() > 0; });
}

const Scenario kScenarios[] = {
    {"plain", "connect, exchange plain messages of three sizes, close", Plain, 0, true},
    {"signed", "the same, signed", Signed, 0, true},
    {"datagram", "plain and signed datagrams of three sizes, sent at once and queued", Datagram, 0, false},
    {"blocking", "browse, read and write on blocking nodes, plain and signed", Blocking, 0, true},
    {"trickle", "short messages, plain and signed, 7 bytes a transfer", Trickle, 7, true},
    {"drain", "fill the queue to its limit, drain it, throw it away", Drain, 0, true},
    {"many", "wait on streams, datagrams and a descriptor beyond 1024 in six ways", Many, 0, false},
    {"names", "lookups, options, the application's name, the host", Names, 0, false},
};

}  // namespace

std::span<const Scenario> Scenarios() { return kScenarios; }

void PreparePlatform(const char* folder) {
  setenv("MQFAULTS_FOLDER", folder, 1);
  Platform::Reset();
  Platform::SkipPauses();
  Platform::AddService("faults", "tcp", 0);
  Platform::AddService("one", "tcp", 1);
  // A wait for a network that never comes has no end: this one comes.
  Platform::OnPause([] {
    if (++pauses == kLongestPause) Platform::Mend();
    if (pauses == kShortPause && after_pauses) after_pauses();
  });
  Platform::OnSystem([folder = std::string(folder)](const char*) {
    FILE* const file = fopen((folder + "/" + std::to_string(getpid())).c_str(), "w");
    if (file == nullptr) return -1;
    fputs("faults\n", file);
    fclose(file);
    return 0;
  });
}

}  // namespace faults
