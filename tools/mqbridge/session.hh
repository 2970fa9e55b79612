// session.hh - what both sides of the bridge share: the loop, the cluster, signals, the metrics port, and the order in
// which a bridge begins and ends.
//   1. Connect to the cluster, with retries; then Side::Begin.
//   2. Run. Side::Connected and Side::Lost report reconnects, Side::Tick is called ten times a second.
//   3. SIGTERM or SIGINT: Side::Drain; wait until Side::IsDrained, for at most the time of --drain.
//   4. Side::End; wait until its nodes are closed and the cluster has everything; close.
// A second signal ends the process.
#pragma once

#include <uv.h>

#include <memory>

#include "bus.hh"
#include "calls.hh"
#include "metrics.hh"
#include "mqcat/link.hh"
#include "mqnode/finish.h"
#include "mqnode/uv.h"
#include "report.hh"

namespace mqbridge {

class Side {
 public:
  virtual ~Side() = default;
  virtual void Begin() = 0;
  virtual void Connected() = 0;
  virtual void Lost() = 0;
  virtual void Tick(int64_t now) = 0;
  virtual void Drain() = 0;
  virtual bool IsDrained() = 0;
  virtual void End() = 0;
};

class Session {
 public:
  Session(const Options& options, const MqLoopLimits& limits);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs until the end. Throws a Failure.
  void Run(Side& side);

  Report& report() { return report_; }
  Bus& bus() { return *bus_; }
  Calls& calls() { return *calls_; }
  MqUv* nodes() { return nodes_; }
  const mqcat::Security& security() const { return security_; }
  bool is_signed() const { return security_.check; }
  bool is_running() const { return phase_ == Phase::kRunning; }

  // Sets the node's name, and its user to the signer's.
  void Name(MQNode* node) const;

 private:
  enum class Phase { kConnecting, kRunning, kDraining, kEnding, kClosed };

  static void OnTick(uv_timer_t* timer);
  static void OnSignal(uv_signal_t* handle, int number);
  void OnBusChanged();
  void Tick();
  void Connect(int64_t now);
  void Drain();
  void Close();

  const Options& options_;
  Report report_;
  mqcat::Security security_;
  uv_loop_t loop_ = {};
  uv_timer_t timer_ = {};
  uv_signal_t signals_[2] = {};
  MqUv* nodes_ = nullptr;
  std::unique_ptr<Bus> bus_;
  std::unique_ptr<Calls> calls_;
  std::unique_ptr<Metrics> metrics_;
  Side* side_ = nullptr;
  Phase phase_ = Phase::kConnecting;
  std::string last_failure_;
  uint64_t reconnects_ = 0;
  int64_t next_connect_ = 0, next_status_ = 0, deadline_ = 0;
  std::exception_ptr failure_;  // thrown in the loop
};

// The place of the command line. Throws a Failure.
SockAddrRec PlaceOf(const std::vector<std::string>& words);

}  // namespace mqbridge
