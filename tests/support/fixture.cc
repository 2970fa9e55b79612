// fixture.cc - the fixture, the recorders and the peers.
#include "tests/support/fixture.hh"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>

namespace {

constexpr int kPatience = 10;  // seconds

std::map<std::string, std::string> aliases;

std::string Aliased(std::string text) {
  for (const auto& [number, name] : aliases) {
    for (size_t at; (at = text.find(number)) != text.npos;) text.replace(at, number.size(), name);
  }
  return text;
}

void Note(char kind, const void* object, const std::string& what) {
  const auto name = Trace::Now().names.find(object);
  Platform::Note(kind, name == Trace::Now().names.end() ? what : name->second + " " + what);
}

// A failed helper makes the test meaningless: stop.
template <typename Result>
Result Check(Result result, const char* what) {
  if (result >= 0) return result;
  perror(what);
  abort();
}

sockaddr_in Loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

}  // namespace

Trace& Trace::Now() {
  static Trace now;
  return now;
}

void Trace::OnSocket(const char* point, SockRec* rec) {
  Note('s', rec, point);
  if (Now().on_socket) Now().on_socket(point, rec);
}

void Trace::OnNode(const char* point, MQNode* node) {
  Note('n', node, Now().show != nullptr ? format("{} {}", point, Now().show(node)) : point);
}

int Trace::OnError(SockRec* rec) {
  Note('s', rec, format("onError {}", rec->error));
  if (Now().on_socket) Now().on_socket("onError", rec);
  return 5;
}

std::string Take(std::string_view kinds) {
  std::string text;
  Lines open;  // operations between their Before and After points
  for (const Call& call : Platform::Records()) {
    if (kinds.find(call.kind) == kinds.npos) continue;
    const std::string event = call.Text(), name = event.substr(0, event.find(':'));
    if (!open.empty() && event == open.back() + ":After") {
      text += "]";
      open.pop_back();
      continue;
    }
    if (!text.empty() && text.back() != '[') text += "; ";
    text += event == name + ":Before" ? name + "[" : event;
    if (event == name + ":Before") open.push_back(name);
  }
  Platform::Forget();
  return Aliased(text);
}

void Alias(int number, const std::string& name) { aliases[std::to_string(number)] = name; }

Peer::Peer(int fd) : fd_(fd) {
  const timeval patience = {kPatience, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

Peer Peer::Bound(int type) {
  Peer peer(Check(socket(AF_INET, type, 0), "socket"));
  const sockaddr_in address = Loopback(0);
  Check(bind(peer.fd_, Generic(address), sizeof address), "bind");
  return peer;
}

Peer Peer::Listen() {
  Peer peer = Bound(SOCK_STREAM);
  Check(listen(peer.fd_, 20), "listen");
  return peer;
}

Peer Peer::Connect(int port) {
  Peer peer = Bound(SOCK_STREAM);
  const sockaddr_in address = Loopback(port);
  Check(connect(peer.fd_, Generic(address), sizeof address), "connect");
  return peer;
}

Peer Peer::Datagram() { return Bound(SOCK_DGRAM); }
Peer Peer::Accept() const { return Peer(Check(accept(fd_, nullptr, nullptr), "accept")); }

void Peer::Send(std::string_view bytes, int flags) const {
  const ssize_t sent = Check(send(fd_, bytes.data(), bytes.size(), flags), "send");
  Check(sent - static_cast<ssize_t>(bytes.size()), "send: short");
}

void Peer::SendTo(int port, std::string_view bytes) const {
  const sockaddr_in to = Loopback(port);
  Check(sendto(fd_, bytes.data(), bytes.size(), 0, Generic(to), sizeof to), "sendto");
}

std::string Peer::Read(size_t size) const {
  std::string bytes(size, '\0');
  bytes.resize(static_cast<size_t>(Check(recv(fd_, bytes.data(), size, MSG_WAITALL), "recv")));
  return bytes;
}

void Peer::Shutdown() const { Check(shutdown(fd_, SHUT_WR), "shutdown"); }
int Peer::port() const { return PortOf(fd_); }

int PortOf(int fd) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  Check(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
  return ntohs(address.sin_port);
}

void Await(int fd, short events) {
  pollfd waiting = {fd, events, 0};
  Check(poll(&waiting, 1, kPatience * 1000) - 1, "poll");
}

Fixture::Fixture() {
  signal(SIGPIPE, SIG_IGN);
  Platform::Reset();
  Trace::Now() = Trace();
  aliases.clear();
  OnGSocketTrace(nullptr);
  mnGSetTraceCallBack(nullptr);
  mqc_fail_allocation(0, 0);
  mqc_log_to("/dev/null");
  descriptors_ = OpenDescriptors();
  blocks_ = LiveBlocks();
}

void Fixture::TearDown() {
  Trace::Now() = Trace();
  Platform::Reset();
}

Fixture::~Fixture() {
  mqc_fail_allocation(0, 0);
  EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors were left open, or closed";
  EXPECT_EQ(LiveBlocks(), blocks_) << "memory of the companion is still in use";
  mqc_log_to(nullptr);
}

std::string Printed(const std::function<void()>& run) {
  fflush(stdout);
  ::testing::internal::CaptureStdout();
  run();
  fflush(stdout);
  return ::testing::internal::GetCapturedStdout();
}

SockAddrRec AddressOf(std::string_view host, std::string_view service, std::string_view protocol, std::string_view ip) {
  SockAddrRec address = {};
  host.copy(address.host, sizeof address.host - 1);
  service.copy(address.service, sizeof address.service - 1);
  protocol.copy(address.protocol, sizeof address.protocol - 1);
  ip.copy(address.ip, sizeof address.ip - 1);
  return address;
}
SockAddrRec AddressOf(std::string_view host, int port) { return AddressOf(host, std::to_string(port)); }

std::string Text(const SockAddrRec& address) {
  const auto field = [](const auto& text) {
    return text[0] == '\0' ? std::string("-") : std::string(text, strnlen(text, sizeof text));
  };
  return Aliased(format("{} {} {} {} {}", field(address.host), field(address.ip), field(address.service),
                        field(address.protocol), address.port));
}

Lines OpenDescriptors() {
  Lines open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry, gone);
    const bool folder = target == format("/proc/{}/fd", getpid());  // the directory being read
    if (!gone && !folder) open.push_back(entry.path().filename().string() + " -> " + target);
  }
  std::sort(open.begin(), open.end());
  return open;
}

std::map<std::string, uint64_t> LiveBlocks() {
  std::map<std::string, uint64_t> blocks;
  const char* tag = nullptr;
  for (uint32_t i = 0; (tag = mqc_memory_tag(i)) != nullptr; ++i) {
    if (strcmp(tag, "ring") == 0 || strcmp(tag, "replay") == 0) continue;
    MqcMemory account;
    mqc_memory(tag, &account);
    if (account.live_blocks != 0) blocks[tag] = account.live_blocks;
  }
  return blocks;
}
