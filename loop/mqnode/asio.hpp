// asio.hpp - nodes in an Asio event loop, for C++20 coroutines. Header-only.
//
//   asio::awaitable<void> ask(mqnode::Address address) {
//     mqnode::AsyncNode node(co_await asio::this_coro::executor, mqnode::Node::connector(address));
//     const mqnode::Message msg = mqnode::Message::create();
//     mqnode::Result result = co_await mqnode::within(5s, node.open());
//     if (result && msg.begin(7) && msg.add(1, "how is the weather?")) result = co_await node.write(msg);
//     if (result) result = co_await mqnode::within(5s, node.read(msg));
//     if (!result) std::cerr << result.name() << '\n';
//     co_await mqnode::within(2s, node.finish());
//   }
//
// Conventions
//   Results        operations return a Result of mqnode.hpp and throw no exceptions of their own. As in any coroutine,
//                  std::bad_alloc is possible
//   Cancellation   with cancellation slots, awaitable_operators or within(). A cancelled operation returns ECANCELED
//                  and loses nothing: a partly received message is continued by the next read, and a message whose
//                  write was cancelled remains queued and is sent by the next write, read, flush or finish
//   Time           operations have no time limit of their own: use within()
//   Order          one coroutine may read a node at a time. Several coroutines may write to a stream node, one to a
//                  datagram node; messages are sent in the order of the writes. A node may be closed or destroyed while
//                  operations wait for it: they return ECANCELED
//   Fairness       a node reads at most messagesPerTurn messages, and a listener accepts at most acceptsPerTurn
//                  connections, before the other nodes of the loop have their turn
//   Threads        the executor must run in one thread or be a strand; use a node only from its executor
//   SIGPIPE        must be ignored by the application
//
// Asio 1.22 or later, without Boost (asio.hpp); link mqnode::asio.
#ifndef MQNODE_MQNODE_ASIO_HPP
#define MQNODE_MQNODE_ASIO_HPP

#include <arpa/inet.h>
#include <poll.h>

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "mqnode/limits.h"
#include "mqnode/mqnode.hpp"
#include "mqnode/step.h"

namespace mqnode {

class AsyncNode;

namespace detail {

constexpr std::chrono::milliseconds kAcceptPause{50};  // before the next attempt, while no connection can be accepted
constexpr std::chrono::milliseconds kNoPause{0};       // but lets the other nodes have their turn
constexpr std::chrono::milliseconds kAway{500};        // a timer that expires this late shows that the loop did not run
constexpr std::chrono::milliseconds kCatchUp{100};     // time to process what has arrived meanwhile

struct AsyncState;

// Data shared by a listener and the nodes that it has accepted.
struct AsyncCommon {
  // The accepted node that gives way to a new connection, or null.
  AsyncState* choose() const noexcept;

  MqLoopLimits limits;
  std::unordered_set<AsyncState*> accepted = {};          // accepted nodes that are not closed
  std::unordered_map<std::uint32_t, int> addresses = {};  // number of accepted nodes of each address
};

// A node and its descriptor in the loop. Operations share ownership, so that it outlives its AsyncNode until they end.
struct AsyncState {
  using Wait = asio::posix::stream_descriptor::wait_type;

  AsyncState(const asio::any_io_executor& executor, Node taken, bool is_signed, std::shared_ptr<AsyncCommon> shared)
      : common(std::move(shared)), node(std::move(taken)), descriptor(executor) {
    if (!node || node.failed()) return;
    begun = mq_step_begin(&step, node.get(), is_signed ? 1 : 0, &common->limits, mq_clock()) == MQ_STEP_DONE;
    if (begun && node.is_listening()) begun = mq_step_listen(&step, common->limits.backlog) == MQ_STEP_DONE;
  }
  ~AsyncState() { close(); }
  AsyncState(const AsyncState&) = delete;
  AsyncState& operator=(const AsyncState&) = delete;

  void close() noexcept {
    if (!begun || step.phase == MQ_STEP_CLOSED) return;
    if (descriptor.is_open()) descriptor.release();
    mq_step_close(&step);
    if (step.accepted == 0) return;
    common->accepted.erase(this);
    if (--*alike == 0) common->addresses.erase(address);
  }
  void give_way() noexcept {
    gave_way = true;
    close();
  }

  // Takes one of the listener's places.
  void join() {
    address = inet_addr(node.record().sock.name.ip);
    alike = &common->addresses[address];
    common->accepted.insert(this);
    ++*alike;
    step.accepted = 1;
  }

  // Waits until the node is ready; code is set if the wait failed. The node may have been closed meanwhile.
  asio::awaitable<void> wait(Wait type, asio::error_code& code) {
    mq_step_progress(&step, mq_clock());
    if (!descriptor.is_open()) descriptor.assign(node.descriptor(), code);
    return descriptor.async_wait(type, asio::redirect_error(asio::use_awaitable, code));
  }

  static Result done() noexcept { return {1, MQ_OK, MQ_IN_NODE}; }
  Result failed() const noexcept {
    const bool of_socket = step.error == node.record().sock.error && step.error != MQ_AGAIN;
    return {0, step.error, of_socket ? MQ_IN_SOCKET : MQ_IN_NODE};
  }
  // Whether an operation cannot go on after a wait, and its result.
  bool is_stopped(const asio::error_code& code) const noexcept { return code || step.phase == MQ_STEP_CLOSED; }
  Result stopped(const asio::error_code& code) const noexcept {
    const bool cancelled = step.phase == MQ_STEP_CLOSED || code == asio::error::operation_aborted;
    return {0, gave_way ? ECONNABORTED : cancelled ? ECANCELED : code.value(), MQ_IN_SOCKET};
  }
  // Closes the node after a part of a message was lost: the peer would take the next message for the rest of it.
  Result broken() noexcept {
    close();
    return failed();
  }

  const std::shared_ptr<AsyncCommon> common;
  Node node;
  asio::posix::stream_descriptor descriptor;
  MqStep step = {};
  bool begun = false;
  bool gave_way = false;      // its place was needed
  std::uint32_t address = 0;  // of an accepted node
  int* alike = nullptr;       // how many accepted nodes have the same address
};

inline AsyncState* AsyncCommon::choose() const noexcept {
  const std::int64_t before = mq_clock() - limits.keptMsec;
  AsyncState* chosen = nullptr;
  for (AsyncState* const state : accepted) {
    if (chosen == nullptr ||
        mq_step_gives_way(&state->step, *state->alike, &chosen->step, *chosen->alike, before) != 0) {
      chosen = state;
    }
  }
  return limits.keptMsec >= 0 && chosen != nullptr && chosen->step.begun <= before ? chosen : nullptr;
}

using AsyncShared = std::shared_ptr<AsyncState>;

inline asio::awaitable<Result> async_open(AsyncShared own) {
  for (;;) {
    const int outcome = mq_step_connect(&own->step);
    if (outcome == MQ_STEP_DONE) co_return AsyncState::done();
    if (outcome == MQ_STEP_FAILED) co_return own->failed();
    asio::error_code code;
    co_await own->wait(AsyncState::Wait::wait_write, code);
    if (own->is_stopped(code)) co_return own->stopped(code);
  }
}

// Waits for the readiness that the node requires next; if it requires both, for either.
inline asio::awaitable<void> async_wait(AsyncShared own, asio::error_code& code) {
  using namespace asio::experimental::awaitable_operators;
  const int wants = mq_step_wants(&own->step);
  if (wants == (MQ_STEP_READABLE | MQ_STEP_WRITABLE)) {
    asio::error_code other;
    co_await (own->wait(AsyncState::Wait::wait_read, code) || own->wait(AsyncState::Wait::wait_write, other));
    if (!other) code.clear();  // one of them is cancelled
  } else if (wants != 0) {
    co_await own->wait(wants == MQ_STEP_READABLE ? AsyncState::Wait::wait_read : AsyncState::Wait::wait_write, code);
  } else {
    asio::steady_timer timer(own->descriptor.get_executor(), std::chrono::milliseconds(MQ_STEP_CONFIRM_MSEC));
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, code));
  }
}

// Waits until the node can be read. What is queued is sent meanwhile: after a cancelled write nothing else sends it.
inline asio::awaitable<Result> async_readable(AsyncShared own) {
  MqStep& step = own->step;
  for (bool readable = false; !readable;) {
    if (own->is_stopped({})) co_return own->stopped({});
    asio::error_code code;
    const bool queued = step.node->pending != nullptr;
    if (queued) co_await async_wait(own, code);
    if (!queued) co_await own->wait(AsyncState::Wait::wait_read, code);
    if (own->is_stopped(code)) co_return own->stopped(code);
    if (queued && mq_step_flush(&step) == MQ_STEP_FAILED) co_return own->broken();
    pollfd state = {step.node->sock.fd, POLLIN, 0};
    readable = !queued || (step.held == 0 && poll(&state, 1, 0) != 0);
  }
  mq_step_turn(&step);
  co_return AsyncState::done();
}

inline asio::awaitable<Result> async_read(AsyncShared own, MessageRef msg) {
  MqStep& step = own->step;
  if (own->is_stopped({})) co_return own->stopped({});
  for (;;) {
    const int outcome = mq_step_read(&step, msg.get());
    if (outcome == MQ_STEP_DONE) co_return AsyncState::done();
    if (outcome != MQ_STEP_WAIT) co_return own->failed();
    if (step.node->pending != nullptr) {
      const Result readable = co_await async_readable(own);
      if (!readable) co_return readable;
      continue;
    }
    asio::error_code code;
    co_await own->wait(AsyncState::Wait::wait_read, code);
    if (own->is_stopped(code)) co_return own->stopped(code);
    mq_step_turn(&step);
  }
}

// Sends what is queued, up to the write with this number.
inline asio::awaitable<Result> async_flush(AsyncShared own, std::uint64_t number) {
  MqStep& step = own->step;
  if (own->is_stopped({})) co_return own->stopped({});
  while (mq_step_completed(&step) < number) {
    asio::error_code code;
    co_await own->wait(AsyncState::Wait::wait_write, code);
    if (own->is_stopped(code)) co_return own->stopped(code);
    if (mq_step_completed(&step) >= number) break;  // sent by another operation
    const int flushed = mq_step_flush(&step);
    if (flushed == MQ_STEP_FAILED) co_return own->broken();
    if (flushed == MQ_STEP_LOST && mq_step_completed(&step) == number) co_return own->failed();
  }
  co_return AsyncState::done();
}

template <class Function, class... Arguments>
asio::awaitable<Result> async_write(AsyncShared own, Function function, MessageRef msg, Arguments... arguments) {
  MqStep& step = own->step;
  if (own->is_stopped({})) co_return own->stopped({});
  if (!mq_step_may_write(&step)) co_return own->failed();
  const int outcome = mq_step_wrote(&step, function(msg.get(), own->node.get(), arguments...));
  if (outcome == MQ_STEP_FAILED) co_return own->broken();
  if (outcome == MQ_STEP_LOST) co_return own->failed();
  if (mq_step_completed(&step) == step.taken) co_return AsyncState::done();
  co_return co_await async_flush(own, step.taken);
}

inline asio::awaitable<Result> async_finish(AsyncShared own) {
  if (own->step.phase == MQ_STEP_OPEN) mq_step_begin_end(&own->step);
  for (;;) {
    const int outcome = mq_step_end(&own->step);
    if (outcome == MQ_STEP_DONE) co_return AsyncState::done();
    if (outcome == MQ_STEP_FAILED) co_return own->failed();
    if (outcome == MQ_STEP_LOST) continue;
    asio::error_code code;
    co_await async_wait(own, code);
    if (own->is_stopped(code)) co_return own->stopped(code);
  }
}

inline asio::awaitable<Result> async_accept(AsyncShared own, AsyncNode& child);

inline asio::awaitable<void> async_keep(asio::awaitable<Result> operation, Result& result) {
  result = co_await std::move(operation);
}

}  // namespace detail

// AsyncNode - owns a node, for coroutines. It can be moved, but not copied. Its destructor closes the node immediately:
// call finish() before if the last messages must arrive.
class AsyncNode {
 public:
  enum class Framing { kPlain, kSigned };

  // Creates an empty AsyncNode, for accept().
  AsyncNode() noexcept = default;
  // Takes ownership of a node from a creator, and makes it non-blocking. status() tells whether it can be used.
  //   framing   messages that read() accepts: plain or signed
  //   limits    limits of this node; those of a listener also apply to the nodes that it accepts. Of its time
  //             limits, only keptMsec is used
  AsyncNode(const asio::any_io_executor& executor, Node node, Framing framing = Framing::kPlain,
            const MqLoopLimits& limits = mq_loop_limits())
      : state_(
            std::make_shared<detail::AsyncState>(executor, std::move(node), framing == Framing::kSigned,
                                                 std::make_shared<detail::AsyncCommon>(detail::AsyncCommon{limits}))) {}
  AsyncNode(AsyncNode&&) noexcept = default;
  AsyncNode& operator=(AsyncNode&& other) noexcept {
    if (this != &other) close();
    state_ = std::move(other.state_);
    return *this;
  }
  ~AsyncNode() { close(); }

  explicit operator bool() const noexcept { return state_ != nullptr; }
  // Whether the node was created and can be used. ENOMEM if this AsyncNode is empty.
  Result status() const noexcept {
    if (state_ == nullptr) return {0, ENOMEM, MQ_IN_SOCKET};
    return state_->begun || !state_->node || state_->node.failed() ? state_->node.status() : state_->failed();
  }
  // The node. Use the operations below to read and write, not this reference.
  NodeRef node() const noexcept { return state_->node; }
  asio::any_io_executor get_executor() const { return state_->descriptor.get_executor(); }
  // Whether a part of a message has arrived.
  bool is_in_message() const noexcept { return mq_step_is_cut(&state_->step) != 0; }
  // Why the node ends after a read or write with this result, as text for a log; null if the peer left between two
  // messages.
  const char* why(const Result& result) const noexcept { return mq_step_why(&state_->step, result.cause()); }

  // The following operations require that status() is a success.

  // Connects. A host name is looked up first, which blocks the loop.
  asio::awaitable<Result> open() const { return detail::async_open(state_); }

  // Waits for a connection on a listener and moves it to child, with the framing and the limits of the listener. While
  // limits.nodes nodes are open, or no descriptor is left, a new connection takes the place of another node, as
  // documented for limits.keptMsec: that node is closed, and its operations return ECONNABORTED. If no node has to
  // leave, or there is no memory, connections wait. The result may be true with a code, such as EMFILE: connections had
  // to wait.
  asio::awaitable<Result> accept(AsyncNode& child) const { return detail::async_accept(state_, child); }

  // Waits until there is something to read: a part of a message, a datagram, or the end of a connection. A server can
  // allow a long silence between two messages but little time for each message: within(10min, readable()), then
  // within(10s, read(msg)). A silent client then needs no message record.
  asio::awaitable<Result> readable() const { return detail::async_readable(state_); }

  // Reads one message. False with EMSGSIZE if it is longer than limits.messageBytes, and with peer_gone() at the end of
  // a connection. On a datagram node, also false for a datagram that was not a message: read again.
  asio::awaitable<Result> read(MessageRef msg) const { return detail::async_read(state_, msg); }

  // Writes one message and waits until the system has accepted it. False with -1111 while more than limits.queueBytes
  // are queued. A stream node that has lost a part of a message is closed. msg and to must live until the operation has
  // started.
  asio::awaitable<Result> write(MessageRef msg) const { return detail::async_write(state_, mnWrite, msg); }
  asio::awaitable<Result> write_to(MessageRef msg, SockAddrRec& to) const {
    return detail::async_write(state_, mnWriteTo, msg, &to);
  }
  asio::awaitable<Result> write_signed(MessageRef msg, const Signer& signer) const {
    return detail::async_write(state_, mnSWrite, msg, 1, static_cast<void*>(signer.get()));
  }
  asio::awaitable<Result> write_signed_to(MessageRef msg, SockAddrRec& to, const Signer& signer) const {
    return detail::async_write(state_, mnSWriteTo, msg, &to, 1, static_cast<void*>(signer.get()));
  }

  // Waits until nothing is queued, for example after a write was cancelled.
  asio::awaitable<Result> flush() const { return detail::async_flush(state_, state_->step.taken); }

  // As mq_finish: sends the queued messages, shuts down the sending side, and waits until the peer has received
  // everything and closed the connection. Only close() may follow.
  asio::awaitable<Result> finish() const { return detail::async_finish(state_); }

  // Closes the node immediately and discards queued messages. A second call has no effect.
  void close() noexcept {
    if (state_ != nullptr) state_->close();
  }

 private:
  friend asio::awaitable<Result> detail::async_accept(detail::AsyncShared own, AsyncNode& child);

  explicit AsyncNode(detail::AsyncShared state) noexcept : state_(std::move(state)) {}

  detail::AsyncShared state_;
};

namespace detail {

// Returns the state of an accepted node, or null if it cannot be used.
inline AsyncShared async_adopt(AsyncState& listener, MQNode* accepted) {
  AsyncShared child = std::make_shared<AsyncState>(listener.descriptor.get_executor(), Node(accepted),
                                                   listener.step.secure != 0, listener.common);
  if (!child->begun) return nullptr;
  child->join();
  return child;
}

inline asio::awaitable<Result> async_accept(AsyncShared own, AsyncNode& child) {
  MqStep& step = own->step;
  const AsyncCommon& common = *own->common;
  for (int lacking = MQ_OK;;) {
    MQNode* accepted = nullptr;
    const bool full = common.accepted.size() >= static_cast<std::size_t>(common.limits.nodes);
    AsyncState* const leaving = full ? common.choose() : nullptr;
    const int outcome = full && leaving == nullptr ? MQ_STEP_FULL : mq_step_accept(&step, &accepted);
    if (outcome == MQ_STEP_FAILED) co_return own->failed();
    if (outcome == MQ_STEP_LOST) continue;
    if (outcome == MQ_STEP_DONE) {
      if (leaving != nullptr) {
        leaving->give_way();
        step.left = 0;  // one in a turn: to choose takes time
      }
      child = AsyncNode(async_adopt(*own, accepted));
      if (child) co_return Result(1, lacking, MQ_IN_SOCKET);
      continue;
    }
    asio::error_code code;
    if (outcome == MQ_STEP_WAIT) {
      co_await own->wait(AsyncState::Wait::wait_read, code);
      mq_step_turn(&step);
    } else {
      if (!full) lacking = step.error;
      AsyncState* const other = !full && lacking == EMFILE ? common.choose() : nullptr;
      if (other != nullptr) other->give_way();
      asio::steady_timer timer(own->descriptor.get_executor(), other != nullptr ? kNoPause : kAcceptPause);
      co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, code));
      mq_step_resume(&step);
    }
    if (own->is_stopped(code)) co_return own->stopped(code);
  }
}

// Waits until the time of a timer is over. The code says whether it was cancelled before.
inline asio::awaitable<void> async_expire(asio::steady_timer& timer, asio::error_code& code) {
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, code));
  if (code || std::chrono::steady_clock::now() - timer.expiry() < kAway) co_return;
  timer.expires_after(kCatchUp);
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, code));
}

}  // namespace detail

// within - perform an operation with a time limit. After that it is cancelled; the result is false with timed_out(). If
// the loop did not run when the time expired, the operation has another 100 ms: the peer may not be at fault.
//   if (const Result read = co_await within(10s, node.read(msg)); read.timed_out()) ...
inline asio::awaitable<Result> within(std::chrono::milliseconds longest, asio::awaitable<Result> operation) {
  using namespace asio::experimental::awaitable_operators;
  asio::steady_timer timer(co_await asio::this_coro::executor, longest);
  asio::error_code code;
  Result result(0, ECANCELED, MQ_IN_SOCKET);
  co_await (detail::async_keep(std::move(operation), result) || detail::async_expire(timer, code));
  // If the operation ended at the same moment, its own result is returned.
  const bool expired = !result && result.code() == ECANCELED && !code;
  co_return expired ? Result(0, SOCK_WAIT_TIMEOUT, MQ_IN_STATUS) : result;
}

}  // namespace mqnode

#endif
