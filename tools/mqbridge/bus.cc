// bus.cc - see bus.hh. Invariant: callbacks on libnats threads touch only the atomics and, under the lock, the queue.
#include "bus.hh"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "fmt/format.h"
#include "mqcat/failure.hh"

namespace mqbridge {
namespace {

constexpr size_t kMostArrived = 4096;
constexpr int64_t kConnectMsec = 2000;
constexpr int64_t kReconnectMsec = 250;
constexpr int64_t kPingMsec = 5000;  // a connection with two unanswered pings is dropped
constexpr int64_t kThreadsEndMsec = 2000;

struct OptionsDeleter {
  void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
};
using NatsOptions = std::unique_ptr<natsOptions, OptionsDeleter>;

mqcat::Failure NatsFailure(const std::string& what, natsStatus status) {
  const mqcat::ExitCode code = status == NATS_NO_MEMORY ? mqcat::kExitResources : mqcat::kExitConnection;
  return {code, fmt::format("{}: {}", what, natsStatus_GetText(status))};
}

// What libnats reports about this thread's last failure, without the source location: "(conn.c:1905): text".
std::string LastError(natsStatus status) {
  const char* const last = nats_GetLastError(nullptr);
  const std::string text = last != nullptr && *last != '\0' ? last : natsStatus_GetText(status);
  const size_t end = text.find("): ");
  return text[0] == '(' && end != std::string::npos ? text.substr(end + 3) : text;
}

// what: named in the failure of an option, such as a file that cannot be read.
void Check(natsStatus status, const std::string& what) {
  if (status == NATS_OK) return;
  throw mqcat::Failure{mqcat::kExitUsage, what + ": " + LastError(status)};
}

// Failures to connect that may go away by themselves. Others are credentials, certificates, a URL.
bool IsPassing(natsStatus status) {
  return status == NATS_NO_SERVER || status == NATS_TIMEOUT || status == NATS_IO_ERROR ||
         status == NATS_CONNECTION_CLOSED || status == NATS_CONNECTION_DISCONNECTED ||
         status == NATS_STALE_CONNECTION || status == NATS_PROTOCOL_ERROR;
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    if (comma > at) parts.push_back(text.substr(at, comma - at));
    at = comma + 1;
  }
  return parts;
}

void SetServers(natsOptions* made, const BusOptions& options) {
  const std::vector<std::string> servers = Split(options.servers);
  if (servers.empty()) throw mqcat::Failure{mqcat::kExitUsage, "--server: no server is named"};
  std::vector<const char*> texts;
  for (const std::string& server : servers) texts.push_back(server.c_str());
  Check(natsOptions_SetServers(made, texts.data(), static_cast<int>(texts.size())), "servers " + options.servers);
}

// libnats reads these files when it connects.
void CheckFile(const std::string& path) {
  if (!path.empty() && access(path.c_str(), R_OK) != 0) {
    throw mqcat::Failure{mqcat::kExitUsage, fmt::format("{}: {}", path, strerror(errno))};
  }
}

void SetIdentity(natsOptions* made, const BusOptions& options) {
  for (const std::string& path : {options.credentials, options.nkey_seed}) CheckFile(path);
  if (!options.credentials.empty()) {
    Check(natsOptions_SetUserCredentialsFromFiles(made, options.credentials.c_str(), nullptr), options.credentials);
  }
  if (!options.nkey_seed.empty()) {
    Check(natsOptions_SetNKeyFromSeed(made, options.nkey_user.c_str(), options.nkey_seed.c_str()), options.nkey_seed);
  }
  if (!options.user.empty()) {
    Check(natsOptions_SetUserInfo(made, options.user.c_str(), options.password.c_str()), "user");
  }
  if (!options.token.empty()) Check(natsOptions_SetToken(made, options.token.c_str()), "token");
}

void SetTls(natsOptions* made, const BusOptions& options) {
  const bool required = options.tls || !options.ca.empty() || !options.certificate.empty();
  if (required) Check(natsOptions_SetSecure(made, true), "TLS");
  if (!options.ca.empty()) Check(natsOptions_LoadCATrustedCertificates(made, options.ca.c_str()), options.ca);
  if (!options.certificate.empty()) {
    Check(natsOptions_LoadCertificatesChain(made, options.certificate.c_str(), options.key.c_str()),
          options.certificate);
  }
}

NatsOptions MakeOptions(const BusOptions& options) {
  natsOptions* made = nullptr;
  Check(natsOptions_Create(&made), "libnats");
  NatsOptions owner(made);
  SetServers(made, options);
  SetIdentity(made, options);
  SetTls(made, options);
  natsOptions_SetName(made, "mqbridge");
  natsOptions_SetTimeout(made, kConnectMsec);
  natsOptions_SetMaxReconnect(made, -1);
  natsOptions_SetReconnectWait(made, kReconnectMsec);
  natsOptions_SetReconnectJitter(made, kReconnectMsec, kReconnectMsec);
  natsOptions_SetPingInterval(made, kPingMsec);
  natsOptions_SetMaxPingsOut(made, 2);
  // Otherwise a thread of libnats asks for the write, a millisecond later. The loop writes once a turn in any case.
  natsOptions_SetSendAsap(made, true);
  return owner;
}

}  // namespace

NatsMsg MakeMsg(const std::string& subject, const std::string& reply, std::string_view body, const Headers& headers) {
  natsMsg* msg = nullptr;
  if (natsMsg_Create(&msg, subject.c_str(), reply.empty() ? nullptr : reply.c_str(), body.data(),
                     static_cast<int>(std::min<size_t>(body.size(), INT_MAX))) != NATS_OK) {
    throw std::bad_alloc();
  }
  NatsMsg owner(msg);
  for (const auto& [name, value] : headers) {
    if (natsMsgHeader_Set(msg, name, value.c_str()) != NATS_OK) throw std::bad_alloc();
  }
  return owner;
}

std::string_view BodyOf(const natsMsg* msg) {
  const int length = natsMsg_GetDataLength(msg);
  return length > 0 ? std::string_view(natsMsg_GetData(msg), static_cast<size_t>(length)) : std::string_view();
}

std::string HeaderOf(const natsMsg* msg, const char* name) {
  const char* value = nullptr;
  // The function parses the header on first use, which does not change what the message says.
  return natsMsgHeader_Get(const_cast<natsMsg*>(msg), name, &value) == NATS_OK && value != nullptr ? value : "";
}

mqcat::Failure RefusalOf(const std::string& why) {
  return {mqcat::kExitConnection, "no connection to the cluster: " + why};
}

Bus::Bus(uv_loop_t* loop, const BusOptions& options, std::function<void()> changed,
         std::function<void(const std::string&)> failed)
    : options_(options), changed_(std::move(changed)), failed_(std::move(failed)), poller_(loop) {
  uv_async_init(loop, &wake_, OnWake);
  wake_.data = this;
}

void Bus::Check(const BusOptions& options) { MakeOptions(options); }

Bus::~Bus() {
  for (const auto& listener : listeners_) natsSubscription_Destroy(listener->subscription);
  natsConnection_Destroy(connection_);
  nats_CloseAndWait(kThreadsEndMsec);  // its threads may still use this object
}

std::string Bus::Connect() {
  const NatsOptions made = MakeOptions(options_);
  poller_.Use(made.get());
  natsOptions_SetDisconnectedCB(made.get(), OnChange, this);
  natsOptions_SetReconnectedCB(made.get(), OnReconnect, this);
  natsOptions_SetClosedCB(made.get(), OnChange, this);
  natsOptions_SetErrorHandler(made.get(), OnError, this);  // libnats would print it
  const natsStatus status = natsConnection_Connect(&connection_, made.get());
  if (status == NATS_OK) return "";
  connection_ = nullptr;
  if (!IsPassing(status)) throw RefusalOf(LastError(status));
  return LastError(status);
}

std::string Bus::server() const {
  char url[256] = "";
  if (connection_ != nullptr) natsConnection_GetConnectedUrl(connection_, url, sizeof url);
  const std::string text = url;
  const size_t at = text.rfind('@');  // the text before it may be a password
  return at == std::string::npos ? text : text.substr(at + 1);
}

std::string Bus::last_error() const {
  const char* text = nullptr;
  natsConnection_GetLastError(connection_, &text);
  return text != nullptr ? text : "";
}

void Bus::Subscribe(const std::string& subject, const std::string& queue, OnMessage fn) {
  auto listener = std::make_unique<Listener>(Listener{this, std::move(fn), nullptr});
  natsSubscription** const place = &listener->subscription;
  const natsStatus status =
      queue.empty() ? natsConnection_Subscribe(place, connection_, subject.c_str(), OnArrival, listener.get())
                    : natsConnection_QueueSubscribe(place, connection_, subject.c_str(), queue.c_str(), OnArrival,
                                                    listener.get());
  if (status != NATS_OK) throw NatsFailure("subscribe to " + subject, status);
  listeners_.push_back(std::move(listener));
}

natsStatus Bus::Publish(const std::string& subject, std::string_view body) {
  return natsConnection_Publish(connection_, subject.c_str(), body.data(), static_cast<int>(body.size()));
}

std::string Bus::Inbox() {
  natsInbox* inbox = nullptr;
  if (natsInbox_Create(&inbox) != NATS_OK) throw std::bad_alloc();
  const std::string text = inbox;
  natsInbox_Destroy(inbox);
  return text;
}

void Bus::Close() {
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
    arrived_.clear();
  }
  has_space_.notify_all();
  if (connection_ != nullptr) natsConnection_Close(connection_);
  poller_.Close();
  uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
}

// ---- On threads of libnats ----

void Bus::OnArrival(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  Listener* const listener = static_cast<Listener*>(closure);
  Bus* const bus = listener->bus;
  NatsMsg owner(msg);
  std::unique_lock guard(bus->lock_);
  bus->has_space_.wait(guard, [bus] { return bus->closed_ || bus->arrived_.size() < kMostArrived; });
  if (bus->closed_) return;
  bus->arrived_.push_back({listener, std::move(owner)});
  uv_async_send(&bus->wake_);
}

void Bus::OnChange(natsConnection*, void* closure) {
  Bus* const bus = static_cast<Bus*>(closure);
  const std::lock_guard guard(bus->lock_);
  bus->has_changed_ = true;
  if (!bus->closed_) uv_async_send(&bus->wake_);
}

void Bus::OnReconnect(natsConnection* connection, void* closure) {
  ++static_cast<Bus*>(closure)->reconnects_;
  OnChange(connection, closure);
}

void Bus::OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure) {
  Bus* const bus = static_cast<Bus*>(closure);
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  const bool has_text = status != NATS_SLOW_CONSUMER && text != nullptr && *text != '\0';
  const std::lock_guard guard(bus->lock_);
  bus->failure_ = has_text ? text : natsStatus_GetText(status);
  if (!bus->closed_) uv_async_send(&bus->wake_);
}

// ---- In the loop ----

void Bus::OnWake(uv_async_t* handle) { static_cast<Bus*>(handle->data)->Deliver(); }

void Bus::Deliver() {
  if (has_changed_.exchange(false)) changed_();
  std::deque<Arrived> arrived;
  std::string failure;
  {
    const std::lock_guard guard(lock_);
    arrived.swap(arrived_);
    failure.swap(failure_);
  }
  has_space_.notify_all();
  if (!failure.empty()) failed_(failure);
  for (Arrived& one : arrived) one.listener->fn(std::move(one.msg));
}

}  // namespace mqbridge
