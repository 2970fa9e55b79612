// fixture.cc - the fixture, the recorders and the peers.
#include "tests/support/fixture.hh"

#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace {

constexpr int kPatience = 10;  // seconds
constexpr size_t kLogTimeLength = 25;

struct Recorder {
  Lines events;
  std::map<const void*, std::string> names;
};

Recorder& Events() {
  static Recorder recorder;
  return recorder;
}

void AddEvent(const void* object, const std::string& what) {
  const auto name = Events().names.find(object);
  Events().events.push_back(name == Events().names.end() ? what : name->second + " " + what);
}

sockaddr_in Loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

// A helper that fails means that the test tells nothing: stop.
void Demand(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "test support: %s: %s\n", what, strerror(errno));
  abort();
}

Peer Make(int type) {
  const int fd = socket(AF_INET, type, 0);
  Demand(fd >= 0, "socket");
  return Peer(fd);
}

void BindLoopback(const Peer& peer) {
  const sockaddr_in address = Loopback(0);
  Demand(bind(peer.fd(), Generic(address), sizeof address) == 0, "bind");
}

void Await(int fd, short events) {
  pollfd waiting = {fd, events, 0};
  Demand(poll(&waiting, 1, kPatience * 1000) == 1, "poll");
}

std::string LogPath() { return ::testing::TempDir() + "mqnode-test-" + std::to_string(getpid()) + ".log"; }

}  // namespace

int Trace::error_result = 0;
std::function<void(std::string_view, SockRec*)> Trace::on_socket;
std::function<void(std::string_view, MQNode*)> Trace::on_node;
std::function<void(SockRec*)> Trace::on_error;

void Trace::Reset() {
  Events() = Recorder();
  error_result = 0;
  on_socket = nullptr;
  on_node = nullptr;
  on_error = nullptr;
}

Lines Trace::Take() { return std::exchange(Events().events, {}); }

// The callbacks keep errno: they stand between a failing call and whoever reads its errno.
void Trace::OnSocket(const char* point, SockRec* rec) {
  AddEvent(rec, point);
  if (on_socket) on_socket(point, rec);
}

void Trace::OnNode(const char* point, MQNode* node) {
  AddEvent(node, point);
  if (on_node) on_node(point, node);
}

int Trace::OnError(SockRec* rec) {
  AddEvent(rec, "onError " + std::to_string(rec->error));
  if (on_error) on_error(rec);
  return error_result;
}

void Trace::Name(const void* object, std::string name) { Events().names[object] = std::move(name); }

Peer::Peer(int fd) : fd_(fd) {
  const timeval patience = {kPatience, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

Peer::Peer(Peer&& other) noexcept : fd_(other.Release()) {}

Peer& Peer::operator=(Peer&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.Release();
  }
  return *this;
}

Peer::~Peer() { Close(); }

Peer Peer::Listen(int backlog) {
  Peer peer = Make(SOCK_STREAM);
  BindLoopback(peer);
  Demand(listen(peer.fd_, backlog) == 0, "listen");
  return peer;
}

Peer Peer::Connect(int port) {
  Peer peer = Make(SOCK_STREAM);
  const sockaddr_in address = Loopback(port);
  Demand(connect(peer.fd_, Generic(address), sizeof address) == 0, "connect");
  return peer;
}

Peer Peer::Datagram() {
  Peer peer = Make(SOCK_DGRAM);
  BindLoopback(peer);
  return peer;
}

Peer Peer::Accept() const {
  const int fd = accept(fd_, nullptr, nullptr);
  Demand(fd >= 0, "accept");
  return Peer(fd);
}

void Peer::Send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    Demand(sent > 0, "send");
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
}

void Peer::SendUrgent(char byte) const { Demand(send(fd_, &byte, 1, MSG_OOB | MSG_NOSIGNAL) == 1, "send urgent"); }

void Peer::SendTo(int port, std::string_view bytes) const {
  const sockaddr_in to = Loopback(port);
  const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0, Generic(to), sizeof to);
  Demand(sent == static_cast<ssize_t>(bytes.size()), "sendto");
}

std::string Peer::Read(size_t size) const {
  std::string bytes(size, '\0');
  size_t have = 0;
  while (have < size) {
    const ssize_t got = recv(fd_, bytes.data() + have, size - have, 0);
    Demand(got >= 0, "recv");
    if (got == 0) break;
    have += static_cast<size_t>(got);
  }
  bytes.resize(have);
  return bytes;
}

std::string Peer::ReadToEnd() const {
  std::string bytes;
  char piece[65536];
  for (;;) {
    const ssize_t got = recv(fd_, piece, sizeof piece, 0);
    Demand(got >= 0, "recv");
    if (got == 0) return bytes;
    bytes.append(piece, static_cast<size_t>(got));
  }
}

std::string Peer::ReadDatagram() const {
  std::string bytes(65536, '\0');
  const ssize_t got = recv(fd_, bytes.data(), bytes.size(), 0);
  Demand(got >= 0, "recv");
  bytes.resize(static_cast<size_t>(got));
  return bytes;
}

void Peer::Shutdown() const { Demand(shutdown(fd_, SHUT_WR) == 0, "shutdown"); }

void Peer::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void Peer::Reset() {
  const linger at_once = {1, 0};
  Demand(setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) == 0, "linger");
  Close();
}

int Peer::port() const {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  Demand(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
  return ntohs(address.sin_port);
}

int Peer::Release() { return std::exchange(fd_, -1); }

ClosedPort::ClosedPort() : peer_(Make(SOCK_STREAM)) { BindLoopback(peer_); }

Fixture::Fixture() {
  signal(SIGPIPE, SIG_IGN);
  Platform::Reset();
  Trace::Reset();
  OnGSocketTrace(nullptr);
  mnGSetTraceCallBack(nullptr);
  mqc_fail_allocation(0, 0);
  unlink(LogPath().c_str());
  mqc_log_to(LogPath().c_str());
  descriptors_ = OpenDescriptors();
  blocks_ = LiveBlocks();
}

void Fixture::TearDown() {
  Trace::on_socket = nullptr;
  Trace::on_node = nullptr;
  Trace::on_error = nullptr;
  Platform::OnSystem(nullptr);
  Platform::OnPause(nullptr);
}

Fixture::~Fixture() {
  mqc_fail_allocation(0, 0);
  EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors were left open, or closed";
  EXPECT_EQ(LiveBlocks(), blocks_) << "memory of the companion is still in use";
  Platform::Reset();
  Trace::Reset();
  mqc_log_to(nullptr);
  unlink(LogPath().c_str());
}

Lines LogLines() {
  Lines lines;
  std::ifstream log(LogPath());
  for (std::string line; std::getline(log, line);) lines.push_back(line.substr(std::min(kLogTimeLength, line.size())));
  return lines;
}

std::string Printed(const std::function<void()>& run) {
  fflush(stdout);
  ::testing::internal::CaptureStdout();
  run();
  fflush(stdout);
  return ::testing::internal::GetCapturedStdout();
}

SockAddrRec AddressOf(std::string_view host, int port) { return AddressOf(host, std::to_string(port)); }

SockAddrRec AddressOf(std::string_view host, std::string_view service, std::string_view protocol, std::string_view ip) {
  SockAddrRec address = {};
  host.copy(address.host, sizeof address.host - 1);
  service.copy(address.service, sizeof address.service - 1);
  protocol.copy(address.protocol, sizeof address.protocol - 1);
  ip.copy(address.ip, sizeof address.ip - 1);
  return address;
}

std::string Text(const SockAddrRec& address) {
  const auto field = [](const char* text, size_t size) {
    return text[0] == '\0' ? std::string("-") : std::string(text, strnlen(text, size));
  };
  return field(address.host, sizeof address.host) + " " + field(address.ip, sizeof address.ip) + " " +
         field(address.service, sizeof address.service) + " " + field(address.protocol, sizeof address.protocol) + " " +
         std::to_string(address.port);
}

void AwaitReadable(int fd) { Await(fd, POLLIN); }
void AwaitUrgent(int fd) { Await(fd, POLLPRI); }
void AwaitWritable(int fd) { Await(fd, POLLOUT); }

Lines OpenDescriptors() {
  Lines open;
  DIR* const folder = opendir("/proc/self/fd");
  Demand(folder != nullptr, "/proc/self/fd");
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(folder)) continue;
    char target[256] = {};
    const std::string path = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(path.c_str(), target, sizeof target - 1) < 0) continue;
    open.push_back(std::string(entry->d_name) + " -> " + target);
  }
  closedir(folder);
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
