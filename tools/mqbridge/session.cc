// session.cc - see session.hh.
#include "session.hh"

#include <csignal>
#include <cstring>

#include "fmt/format.h"
#include "mqcat/address.hh"
#include "mqcat/failure.hh"

namespace mqbridge {
namespace {

constexpr uint64_t kTickMsec = 100;
constexpr int64_t kConnectEveryMsec = 1000;
constexpr int64_t kEndMsec = 3000;

mqcat::KeyOptions KeysOf(const Options& options) {
  mqcat::KeyOptions keys;
  keys.sign = options.sign;
  keys.ring = options.ring;
  keys.user = options.user;
  return keys;
}

}  // namespace

SockAddrRec PlaceOf(const std::vector<std::string>& words) {
  const mqcat::Place place = mqcat::ParsePlace(words, true);
  return mqcat::MakeAddress(place.host, place.service, mqcat::Transport::kTcp);
}

Session::Session(const Options& options, const MqLoopLimits& limits)
    : options_(options), report_(options.json), security_(mqcat::LoadSecurity(KeysOf(options))) {
  Bus::Check(options.bus);  // before there is anything to be undone
  uv_loop_init(&loop_);
  nodes_ = mq_uv_new(&loop_, &limits);
  if (nodes_ == nullptr) throw mqcat::Failure{mqcat::kExitResources, "no memory for a loop"};
  bus_ = std::make_unique<Bus>(
      &loop_, options.bus, [this] { OnBusChanged(); },
      [this](const std::string& why) {
        report_.Event("error", {{"because", why}});
      });
  calls_ = std::make_unique<Calls>(*bus_, report_);
  if (options.metrics >= 0) metrics_ = std::make_unique<Metrics>(&loop_, options.metrics, report_);
  uv_timer_init(&loop_, &timer_);
  timer_.data = this;
  for (int i = 0; i < 2; ++i) {
    uv_signal_init(&loop_, &signals_[i]);
    signals_[i].data = this;
    uv_signal_start_oneshot(&signals_[i], OnSignal, i == 0 ? SIGINT : SIGTERM);
  }
}

Session::~Session() {
  metrics_.reset();
  calls_.reset();
  bus_.reset();
  uv_loop_close(&loop_);
}

void Session::Name(MQNode* node) const {
  memset(node->applName, 0, sizeof node->applName);
  memcpy(node->applName, "mqbridge", 8);
  if (security_.signer != nullptr) {
    snprintf(node->user, sizeof node->user, "%s", mqc_signer_user(security_.signer.get()));
  }
}

void Session::Run(Side& side) {
  side_ = &side;
  next_status_ = mq_clock() + static_cast<int64_t>(options_.status * 1000);
  uv_timer_start(&timer_, OnTick, 0, kTickMsec);
  uv_run(&loop_, UV_RUN_DEFAULT);
  if (failure_ != nullptr) std::rethrow_exception(failure_);
  report_.Event("end");
}

// No exception may pass through libuv.
void Session::OnTick(uv_timer_t* timer) {
  Session* const session = static_cast<Session*>(timer->data);
  try {
    session->Tick();
  } catch (...) {
    session->failure_ = std::current_exception();
    session->Close();
  }
}

void Session::OnSignal(uv_signal_t* handle, int) { static_cast<Session*>(handle->data)->Drain(); }

void Session::OnBusChanged() {
  if (phase_ == Phase::kConnecting || phase_ == Phase::kClosed) return;
  if (bus_->is_over()) {
    failure_ = std::make_exception_ptr(RefusalOf(bus_->last_error()));
    return Close();
  }
  const uint64_t reconnects = bus_->reconnects();
  const bool is_new = reconnects != reconnects_;
  reconnects_ = report_[Count::kReconnects] = reconnects;
  report_[Count::kUp] = bus_->up() ? 1 : 0;
  report_.Event(bus_->up() ? "connected" : "disconnected", {{"server", bus_->server()}});
  if (!bus_->up()) return side_->Lost();
  if (!is_new) return;
  calls_->Reconnected();
  side_->Connected();
}

void Session::Tick() {
  const int64_t now = mq_clock();
  if (phase_ == Phase::kConnecting) return Connect(now);
  calls_->Tick(now);
  side_->Tick(now);
  if (options_.status > 0 && now >= next_status_) {
    next_status_ = now + static_cast<int64_t>(options_.status * 1000);
    report_.Status();
  }
  if (phase_ == Phase::kDraining && (side_->IsDrained() || now >= deadline_)) {
    phase_ = Phase::kEnding;
    deadline_ = now + kEndMsec;
    side_->End();
  } else if (phase_ == Phase::kEnding) {
    const bool is_done = mq_uv_count(nodes_) == 0 && (bus_->buffered() == 0 || !bus_->up());
    if (is_done || now >= deadline_) Close();
  }
}

void Session::Connect(int64_t now) {
  if (now < next_connect_) return;
  next_connect_ = now + kConnectEveryMsec;
  const std::string why = bus_->Connect();
  if (!why.empty()) {
    if (why != last_failure_) report_.Event("waiting", {{"for", options_.bus.servers}, {"because", why}});
    last_failure_ = why;
    return;
  }
  report_[Count::kUp] = 1;
  phase_ = Phase::kRunning;
  report_.Event("connected", {{"server", bus_->server()}});
  calls_->Open();
  side_->Begin();
}

void Session::Drain() {
  for (uv_signal_t& handle : signals_) uv_signal_stop(&handle);  // a second signal ends the process
  if (phase_ == Phase::kConnecting) return Close();
  if (phase_ != Phase::kRunning) return;
  phase_ = Phase::kDraining;
  deadline_ = mq_clock() + static_cast<int64_t>(options_.drain * 1000);
  report_.Event("draining", {{"in_flight", report_[Count::kInFlight]}});
  side_->Drain();
}

void Session::Close() {
  if (phase_ == Phase::kClosed) return;
  if (phase_ != Phase::kConnecting) report_.Status();
  phase_ = Phase::kClosed;
  uv_close(reinterpret_cast<uv_handle_t*>(&timer_), nullptr);
  for (uv_signal_t& handle : signals_) uv_close(reinterpret_cast<uv_handle_t*>(&handle), nullptr);
  if (metrics_ != nullptr) metrics_->Close();
  mq_uv_free(nodes_);
  bus_->Close();
}

}  // namespace mqbridge
