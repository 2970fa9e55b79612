// mqnode.hpp - nodes, messages, signers and waits as C++17 values. Header-only: nothing here is exported.
//
//   using namespace mqnode;
//   Node node = Node::connector({"127.0.0.1", "4711"});
//   Message msg = Message::create();
//   if (msg && node.open() && msg.begin(7) && msg.add(1, "how is the weather?") && node.write(msg) && node.read(msg)) {
//     for (const Param& param : msg.params()) std::cout << param.id() << ": " << param.text() << '\n';
//   } else if (node.failed()) {
//     std::cerr << node.status().name() << '\n';
//   }
//
// Each type wraps a record or handle of the C headers, which document the operations in full; the comments here name
// the C function and describe the differences. get() returns the pointer and record() the record. The types store
// nothing else, so C functions may be called on them at any time. A handle has the size of a pointer, and an operation
// makes the same system calls and allocations as the C function. There is one addition: a stream node that lost a part
// of a message is closed, because its peer would read the next message as the missing part.
//
// Conventions
//   Handles     Node, Message and Signer own their record and release it when they are destroyed. They can be moved,
//               but not copied. release() gives up ownership, reset() replaces the record. A handle is empty, and
//               converts to false, if there was no memory or after it was moved from
//   References  NodeRef and MessageRef have all operations and own nothing; a handle converts to a reference. A
//               reference is a pointer, cheap to copy; its const does not apply to the record
//   Empty       do not call operations of an empty handle or reference, unless documented otherwise
//   Results     a Result contains the return value and the error code, and is true on success. Functions that build
//               messages return bool; MessageRef::error returns the reason for a failure
//   Exceptions  all functions are noexcept; the header compiles without exceptions and RTTI
//   Threads     as in C, a record must be used by one thread at a time
#ifndef MQNODE_MQNODE_MQNODE_HPP
#define MQNODE_MQNODE_MQNODE_HPP

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "companion/host.h"
#include "mqnode/compose.h"
#include "mqnode/create.h"
#include "mqnode/deliver.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/node.h"
#include "mqnode/open.h"
#include "mqnode/read.h"
#include "mqnode/secure_read.h"
#include "mqnode/wait.h"
#include "runtime/message.h"
#include "socksin/options.h"
#include "socksin/record.h"
#include "socksin/wait.h"

namespace mqnode {

class NodeRef;
class Node;

// ---- Results ----

// Result - outcome of an operation: the return value of the C function, and the code that it set. Its texts are those
// of mqnode/errors.h and live as long as the process.
class [[nodiscard]] Result {
 public:
  // place: MQ_IN_NODE, MQ_IN_SOCKET or MQ_IN_STATUS. cause: the code that gives the reason.
  constexpr Result(int value, int code, int cause, unsigned place) noexcept
      : value_(value), code_(code), cause_(cause), place_(place) {}
  constexpr Result(int value, int code, unsigned place) noexcept : Result(value, code, code, place) {}

  // The return value of the C function; true if it is not 0.
  constexpr explicit operator bool() const noexcept { return value_ != 0; }
  constexpr int value() const noexcept { return value_; }

  // The error of the node or the socket, or the status of the wait. It may be nonzero after a success: 11 if a write
  // was queued.
  constexpr int code() const noexcept { return code_; }
  // The reason for a failure: code(), except for a write that was dropped, which stores 11 in the node and the reason
  // in its socket.
  constexpr int cause() const noexcept { return cause_; }

  // The operation is incomplete and nothing was lost: wait, then call again. False for a write that was dropped.
  constexpr bool again() const noexcept { return cause_ == MQ_AGAIN; }
  // After a wait: nothing was ready in time.
  constexpr bool timed_out() const noexcept { return place_ == MQ_IN_STATUS && code_ == SOCK_WAIT_TIMEOUT; }
  // After a read: the peer closed the connection (9004) or reset it.
  constexpr bool peer_gone() const noexcept { return code_ == SOCK_PEER_CLOSED || code_ == ECONNRESET; }

  // The entry of the cause in the table of errors; null for a code that is not in it.
  const MqErrorInfo* info() const noexcept {
    const MqErrorInfo* const there = mq_error_find(cause_, place_);
    return there != nullptr ? there : mq_error_find(cause_, MQ_IN_ANY);
  }
  // mq_error_name, mq_error_meaning and mq_error_remedy of the cause; never null.
  const char* name() const noexcept { return info() != nullptr ? info()->name : mq_error_name(cause_); }
  const char* meaning() const noexcept { return info() != nullptr ? info()->meaning : mq_error_meaning(cause_); }
  const char* remedy() const noexcept { return info() != nullptr ? info()->remedy : mq_error_remedy(cause_); }

 private:
  int value_;
  int code_;
  int cause_;
  unsigned place_;
};

// ErrorText - the reason why a signer could not be created, in one line; empty after a success.
struct ErrorText {
  char text[256] = "";
  std::string_view view() const noexcept { return text; }
};

// ---- Views ----

// Bytes - a view of bytes. It is constructed from any contiguous range with elements of one byte, except string
// literals, and converts to std::span<const std::uint8_t> in C++20.
class Bytes {
 public:
  constexpr Bytes() noexcept = default;
  Bytes(const void* data, std::size_t size) noexcept : data_(static_cast<const std::uint8_t*>(data)), size_(size) {}
  template <class Range, class Element = std::remove_pointer_t<decltype(std::data(std::declval<const Range&>()))>,
            std::enable_if_t<sizeof(Element) == 1 && std::is_trivially_copyable_v<std::remove_cv_t<Element>> &&
                                 !(std::is_array_v<Range> && std::is_same_v<std::remove_cv_t<Element>, char>),
                             int> = 0>
  Bytes(const Range& range) noexcept : Bytes(static_cast<const void*>(std::data(range)), std::size(range)) {}

  constexpr const std::uint8_t* data() const noexcept { return data_; }
  constexpr std::size_t size() const noexcept { return size_; }
  constexpr bool empty() const noexcept { return size_ == 0; }
  constexpr const std::uint8_t* begin() const noexcept { return data_; }
  constexpr const std::uint8_t* end() const noexcept { return data_ + size_; }
  constexpr std::uint8_t operator[](std::size_t index) const noexcept { return data_[index]; }

 private:
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
};

namespace detail {

// The text of a zero-padded field, which may not be null-terminated.
inline std::string_view text_of(const char* field, std::size_t size) noexcept { return {field, strnlen(field, size)}; }

// Copies text into a zero-padded field of a node; false if it has more than most characters.
inline bool fill(char* field, std::size_t size, std::string_view text, std::size_t most) noexcept {
  if (text.size() > most) return false;
  std::memset(field, 0, size);
  if (!text.empty()) std::memcpy(field, text.data(), text.size());
  return true;
}

// Copies text and a terminator into a field. If the text does not fit or contains a zero byte, copies otherwise.
template <std::size_t size>
void put_text(char (&field)[size], std::string_view text, std::string_view otherwise) noexcept {
  const bool fits = text.size() < size && text.find('\0') == std::string_view::npos;
  const std::string_view chosen = fits ? text : otherwise;
  if (!chosen.empty()) std::memcpy(field, chosen.data(), chosen.size());
}

// Converts to milliseconds for the C functions, which take an int.
constexpr int to_int(std::chrono::milliseconds time) noexcept {
  return static_cast<int>(time.count() < 0 ? 0 : time.count() > INT_MAX ? INT_MAX : time.count());
}

// Marks an entry of a list whose node was removed; only its address is used.
inline char removed_place;
inline MQNode* removed() noexcept { return static_cast<MQNode*>(static_cast<void*>(&removed_place)); }

// Owned - the common part of Node, Message and Signer, which own the pointer in their base class.
template <class Ref, auto destroy>
class Owned : public Ref {
 public:
  using Pointer = decltype(std::declval<const Ref&>().get());

  Owned() noexcept = default;
  explicit Owned(Pointer pointer) noexcept : Ref(pointer) {}
  Owned(Owned&& other) noexcept : Ref(other.release()) {}
  Owned& operator=(Owned&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { reset(); }

  // Gives up ownership: the caller must release the record.
  Pointer release() noexcept { return std::exchange(this->pointer_, nullptr); }
  // Releases the record and owns pointer instead. May be called on an empty handle.
  void reset(Pointer pointer = nullptr) noexcept {
    const Pointer old = std::exchange(this->pointer_, pointer);
    if (old != nullptr) destroy(old);
  }
};

}  // namespace detail

// ---- Addresses ----

// Address - a SockAddrRec with constructors. The host "*" is the any-address and "@" the local host; with the service
// "0" the system chooses a port. A text that does not fit its field is not truncated: the address does not resolve
// then, and the operation that uses it fails with 9002 (service) or 9003 (host).
struct Address : SockAddrRec {
  Address() noexcept : SockAddrRec() {}
  Address(const SockAddrRec& record) noexcept : SockAddrRec(record) {}
  Address(std::string_view host_text, std::string_view service_text, std::string_view protocol_text = "tcp") noexcept
      : SockAddrRec() {
    detail::put_text(host, host_text, "..");
    detail::put_text(service, service_text, "?");
    detail::put_text(protocol, protocol_text, "?");
  }
};

// ---- Messages ----

// Param - a parameter of a message; false if there is none. The views are valid until the next call that writes to the
// record.
class Param {
 public:
  Param() noexcept : param_() {}
  explicit Param(const MqcParam& param) noexcept : param_(param) {}

  // The record; false if there is no such parameter.
  explicit operator bool() const noexcept { return param_.type != 0; }
  const MqcParam& record() const noexcept { return param_; }
  // The id and the type, an MqcType. Numbers are of type MQC_INT32 or MQC_INT64.
  std::uint32_t id() const noexcept { return param_.id; }
  std::uint32_t type() const noexcept { return param_.type; }
  bool is_number() const noexcept { return param_.type == MQC_INT32 || param_.type == MQC_INT64; }
  bool is_text() const noexcept { return param_.type == MQC_TEXT; }
  bool is_bytes() const noexcept { return param_.type == MQC_BYTES; }

  // The value; 0, an empty text or no bytes if the parameter has another type. The text is null-terminated.
  std::int64_t number() const noexcept { return param_.number; }
  std::string_view text() const noexcept {
    return is_text() ? std::string_view(param_.text, param_.length) : std::string_view();
  }
  Bytes bytes() const noexcept { return is_bytes() ? Bytes(param_.bytes, param_.length) : Bytes(); }

 private:
  MqcParam param_;
};

// Params - the parameters of a message, in order, as a range; each is looked up when the iterator is dereferenced.
class Params {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Param;
    using difference_type = std::ptrdiff_t;
    using pointer = const Param*;
    using reference = Param;

    Iterator(const PcfMessage* msg, std::uint32_t index) noexcept : msg_(msg), index_(index) {}
    Param operator*() const noexcept {
      MqcParam param;
      mqc_param(msg_, index_, &param);
      return Param(param);
    }
    Iterator& operator++() noexcept {
      ++index_;
      return *this;
    }
    Iterator operator++(int) noexcept { return {msg_, index_++}; }
    bool operator==(const Iterator& other) const noexcept { return index_ == other.index_; }
    bool operator!=(const Iterator& other) const noexcept { return index_ != other.index_; }

   private:
    const PcfMessage* msg_;
    std::uint32_t index_;
  };

  explicit Params(const PcfMessage* msg) noexcept : msg_(msg) {}
  Iterator begin() const noexcept { return {msg_, 0}; }
  Iterator end() const noexcept { return {msg_, size()}; }
  std::uint32_t size() const noexcept { return mqc_count(msg_); }
  bool empty() const noexcept { return size() == 0; }
  // False after the last parameter.
  Param operator[](std::uint32_t index) const noexcept { return *Iterator(msg_, index); }

 private:
  const PcfMessage* msg_;
};

// MessageRef - a message record, owned elsewhere. companion/host.h describes building and reading.
class MessageRef {
 public:
  MessageRef() noexcept = default;
  MessageRef(PcfMessage* msg) noexcept : pointer_(msg) {}

  // The record; false if the reference is empty.
  PcfMessage* get() const noexcept { return pointer_; }
  PcfMessage& record() const noexcept { return *pointer_; }
  explicit operator bool() const noexcept { return pointer_ != nullptr; }

  // Writing: mqc_begin, mqc_add_int32, mqc_add_int64, mqc_add_text, mqc_add_bytes.
  [[nodiscard]] bool begin(std::uint32_t command) const noexcept { return mqc_begin(pointer_, command) != 0; }
  [[nodiscard]] bool add(std::uint32_t id, std::int32_t number) const noexcept {
    return mqc_add_int32(pointer_, id, number) != 0;
  }
  [[nodiscard]] bool add(std::uint32_t id, std::int64_t number) const noexcept {
    return mqc_add_int64(pointer_, id, number) != 0;
  }
  // Text ends at its first zero byte. A std::string_view has no terminator: make a std::string of it.
  [[nodiscard]] bool add(std::uint32_t id, const char* text) const noexcept {
    return mqc_add_text(pointer_, id, text) != 0;
  }
  [[nodiscard]] bool add(std::uint32_t id, const std::string& text) const noexcept { return add(id, text.c_str()); }
  [[nodiscard]] bool add(std::uint32_t id, Bytes bytes) const noexcept {
    const auto length = static_cast<std::uint32_t>(bytes.size() < UINT32_MAX ? bytes.size() : UINT32_MAX);
    return mqc_add_bytes(pointer_, id, bytes.data(), length) != 0;
  }
  // Numbers are signed, with 32 or 64 bits: convert other types explicitly.
  template <class Number, std::enable_if_t<std::is_arithmetic_v<Number>, int> = 0>
  bool add(std::uint32_t id, Number number) const = delete;
  bool add(std::uint32_t id, std::string_view text) const = delete;

  // Reading: mqc_command, mqc_param.
  std::uint32_t command() const noexcept { return mqc_command(pointer_); }
  Params params() const noexcept { return Params(pointer_); }
  // mqc_find: the first parameter with this id; false if there is none.
  Param find(std::uint32_t id) const noexcept {
    MqcParam param;
    mqc_find(pointer_, id, &param);
    return Param(param);
  }
  // The value of the first parameter with this id; the given default if there is none or it has another type.
  std::int64_t number_or(std::uint32_t id, std::int64_t otherwise) const noexcept {
    const Param param = find(id);
    return param.is_number() ? param.number() : otherwise;
  }
  std::string_view text_or(std::uint32_t id, std::string_view otherwise) const noexcept {
    const Param param = find(id);
    return param.is_text() ? param.text() : otherwise;
  }

  // The sender of the message that was read last: after a signed read the user whose key signed it, after a plain read
  // the user that the sender claimed to be.
  std::string_view sender() const noexcept {
    return detail::text_of(pointer_->secHeader.userId, sizeof pointer_->secHeader.userId);
  }
  // Whether that message was sealed and has been opened: mqc_sealed.
  bool sealed() const noexcept { return mqc_sealed(pointer_) != 0; }
  // User and program from the header of the message; empty if the record has no raw message.
  std::string_view user() const noexcept { return header_text(offsetof(MsgHeader, userId), sizeof(MsgHeader::userId)); }
  std::string_view application() const noexcept {
    return header_text(offsetof(MsgHeader, applName), sizeof(MsgHeader::applName));
  }

  // The raw form, header included. It is valid until the next call that writes to the record.
  Bytes raw() const noexcept { return {pointer_->raw.data, pointer_->raw.length}; }

  // The reason why the last begin, add or read of this record failed; empty if it succeeded.
  std::string_view error() const noexcept { return mqc_message_error(pointer_); }

 protected:
  PcfMessage* pointer_ = nullptr;

 private:
  std::string_view header_text(std::size_t offset, std::size_t size) const noexcept {
    const PcfRawData& raw = pointer_->raw;
    if (raw.data == nullptr || raw.capacity < sizeof(MsgHeader) || raw.length < sizeof(MsgHeader)) return {};
    return detail::text_of(reinterpret_cast<const char*>(raw.data) + offset, size);
  }
};

// Message - a message record, owned by this handle.
class Message : public detail::Owned<MessageRef, mqc_message_free> {
 public:
  using Owned::Owned;

  // mqc_message_new. Empty if there is no memory.
  static Message create(std::uint32_t capacity = 0) noexcept { return Message(mqc_message_new(capacity)); }
};

// ---- Signers ----

namespace detail {

class SignerRef {
 public:
  SignerRef() noexcept = default;
  explicit SignerRef(MqcSigner* signer) noexcept : pointer_(signer) {}
  MqcSigner* get() const noexcept { return pointer_; }
  explicit operator bool() const noexcept { return pointer_ != nullptr; }

  std::string_view user() const noexcept { return mqc_signer_user(pointer_); }
  void public_key(std::uint8_t (&key)[MQC_KEY_BYTES]) const noexcept { mqc_signer_public_key(pointer_, key); }

 protected:
  MqcSigner* pointer_ = nullptr;
};

}  // namespace detail

// Signer - a user and a secret key, owned by this handle, which wipes the key when it is destroyed. No write may be in
// progress with it then. user() and public_key() are mqc_signer_user and mqc_signer_public_key.
class Signer : public detail::Owned<detail::SignerRef, mqc_signer_free> {
 public:
  using Owned::Owned;

  // mqc_signer_new. Empty after a failure, with the reason in why, unless why is null.
  static Signer create(const char* user, const std::uint8_t (&secret_key)[MQC_KEY_BYTES],
                       ErrorText* why = nullptr) noexcept {
    return Signer(mqc_signer_new(user, secret_key, why ? why->text : nullptr, why ? sizeof why->text : 0));
  }
  // mqc_signer_load. user null: the only key in the file. Empty after a failure, as above.
  static Signer load(const char* path, const char* user = nullptr, ErrorText* why = nullptr) noexcept {
    return Signer(mqc_signer_load(path, user, why ? why->text : nullptr, why ? sizeof why->text : 0));
  }
  // mqc_signer_sealing: a signer that also seals each message that it signs, for this user of the ring. Empty after a
  // failure, as above.
  Signer sealing(const char* user, ErrorText* why = nullptr) const noexcept {
    return Signer(mqc_signer_sealing(pointer_, user, why ? why->text : nullptr, why ? sizeof why->text : 0));
  }
};

// ---- Nodes ----

// NodeRef - a node that is owned elsewhere, for example in a trace callback or in the lists of a wait.
class NodeRef {
 public:
  NodeRef() noexcept = default;
  NodeRef(MQNode* node) noexcept : pointer_(node) {}

  // The node's record; false if the reference is empty.
  MQNode* get() const noexcept { return pointer_; }
  MQNode& record() const noexcept { return *pointer_; }
  explicit operator bool() const noexcept { return pointer_ != nullptr; }
  friend bool operator==(NodeRef a, NodeRef b) noexcept { return a.pointer_ == b.pointer_; }
  friend bool operator!=(NodeRef a, NodeRef b) noexcept { return a.pointer_ != b.pointer_; }

  // mnOpen on a connecting node.
  Result open() const noexcept { return outcome(mnOpen(pointer_)); }
  // mnOpen on a listening node: child becomes the accepted connection, and its previous node is released. False with
  // again() if no connection is waiting on a non-blocking node; false with ENOMEM if there was no memory for the child
  // and the connection was closed. In both cases child does not change.
  Result accept(Node& child) const noexcept;
  // mnClose. A closed node can only be deleted.
  void close() const noexcept { mnClose(pointer_); }

  // mnRead, mnSRead, mnBrowse. again() if the message is incomplete: the received part is kept; call again later.
  Result read(MessageRef msg) const noexcept { return outcome(mnRead(msg.get(), pointer_)); }
  Result read_signed(MessageRef msg) const noexcept { return outcome(mnSRead(msg.get(), pointer_, 1, nullptr)); }
  Result browse(MessageRef msg) const noexcept { return outcome(mnBrowse(msg.get(), pointer_)); }
  // The same with a time limit, on blocking and non-blocking nodes. False with timed_out() if the message is not
  // complete by then; the received part is kept for the next read.
  Result read(MessageRef msg, std::chrono::milliseconds longest) const noexcept {
    return in_time(longest, [&] { return read(msg); });
  }
  Result read_signed(MessageRef msg, std::chrono::milliseconds longest) const noexcept {
    return in_time(longest, [&] { return read_signed(msg); });
  }

  // mnWrite and mnSWrite on a stream node; mnWriteTo and mnSWriteTo on a datagram node, where to must not be the node's
  // record().sock.from; pass a copy of sender(). True if the message was sent or queued: msg may be reused. If a
  // message is dropped after a part was sent, the node is closed, and later writes fail with EBADF.
  Result write(MessageRef msg) const noexcept { return written(mnWrite, msg); }
  Result write_to(MessageRef msg, SockAddrRec& to) const noexcept { return written(mnWriteTo, msg, &to); }
  Result write_signed(MessageRef msg, const Signer& signer) const noexcept {
    return written(mnSWrite, msg, 1, signer.get());
  }
  Result write_signed_to(MessageRef msg, SockAddrRec& to, const Signer& signer) const noexcept {
    return written(mnSWriteTo, msg, &to, 1, signer.get());
  }

  // mnFinishWrite, mnIsPendingIO and mnClearPeningIO. finish_write is false if a queued message was dropped; a stream
  // node is closed then, as above. After discard_pending, close a stream node, because a part of the oldest message may
  // have been sent.
  Result finish_write() const noexcept {
    return of_write(mnFinishWrite(pointer_), pointer_->sock.type == SOCK_TYPE_STREAM);
  }
  bool has_pending() const noexcept { return mnIsPendingIO(pointer_) != 0; }
  void discard_pending() const noexcept { mnClearPeningIO(pointer_); }

  // mq_finish: sends the queued writes, shuts down the sending side, and waits until the peer's system has received
  // everything and the peer has closed the connection. False with ETIMEDOUT if this takes longer. Call it before a node
  // is deleted if its last messages must arrive.
  Result finish(std::chrono::milliseconds longest) const noexcept {
    return outcome(mq_finish(pointer_, detail::to_int(longest)));
  }

  // IsNodeFailed: the last operation failed or is incomplete, or the handle is empty.
  bool failed() const noexcept { return IsNodeFailed(pointer_) != 0; }
  // The result of the last operation, including creation; ENOMEM if the handle is empty. True unless failed().
  Result status() const noexcept { return pointer_ != nullptr ? outcome(!failed()) : Result(0, ENOMEM, MQ_IN_SOCKET); }

  // NoblockSocket or BlockSocket, SetTcpNoDelay, mnSetBufferSize (bytes).
  Result set_blocking(bool on) const noexcept {
    return of_socket(on ? BlockSocket(&pointer_->sock) : NoblockSocket(&pointer_->sock));
  }
  Result set_no_delay(bool on) const noexcept { return of_socket(SetTcpNoDelay(&pointer_->sock, on ? 1 : 0)); }
  Result set_buffer_size(std::uint32_t size) const noexcept { return of_socket(mnSetBufferSize(pointer_, size)); }
  // SetSocketOptions. Keep-alive: whether the system probes an idle peer. Linger: how many seconds a close waits for
  // unsent data. 0, the value of a new node, discards it; with a negative number the system sends it in the background.
  Result set_keep_alive(bool on) const noexcept { return set_option({SOCK_OPT_KEEPALIVE, 0, on}); }
  Result set_linger(int seconds) const noexcept {
    return set_option({SOCK_OPT_LINGER, seconds < 0 ? 0 : seconds, seconds >= 0});
  }
  // For a listening node: the maximum number of connections that wait to be accepted. The system may allow fewer.
  Result set_backlog(int connections) const noexcept {
    const bool done = listen(descriptor(), connections) == 0;
    return {done ? 1 : 0, done ? MQ_OK : errno, MQ_IN_SOCKET};
  }
  // Upper bound of outstanding writes; 0 or less: no limit.
  void set_write_limit(std::int32_t writes) const noexcept { pointer_->writeLimit = writes; }
  // mnSetTraceCallBack; null for none.
  void set_trace(MQNodeTraceFn trace) const noexcept { mnSetTraceCallBack(trace, pointer_); }

  // Fields of the record.
  bool is_open() const noexcept { return pointer_->openState != 0; }
  bool is_listening() const noexcept { return pointer_->role == MQ_ROLE_LISTEN; }
  int descriptor() const noexcept { return pointer_->sock.fd; }
  std::string_view host() const noexcept { return detail::text_of(pointer_->host, sizeof pointer_->host); }
  std::string_view user() const noexcept { return detail::text_of(pointer_->user, sizeof pointer_->user); }
  std::string_view application() const noexcept {
    return detail::text_of(pointer_->applName, sizeof pointer_->applName);
  }
  // Set the user and the application in the messages of this node, instead of the login name and the result of
  // GetApplName. Nodes that a listening node accepts from then on inherit them. False, without a change, if the name is
  // longer than 12 or 48 characters.
  bool set_user(std::string_view user) const noexcept {
    return detail::fill(pointer_->user, sizeof pointer_->user, user, MQC_USER_MAX);
  }
  bool set_application(std::string_view name) const noexcept {
    return detail::fill(pointer_->applName, sizeof pointer_->applName, name, sizeof pointer_->applName);
  }
  // GetFromAddr: the sender of the last datagram, or the target of a connect.
  Address sender() const noexcept { return pointer_->sock.from; }
  // The port to which the socket is bound, from getsockname; -1 after a failure.
  int local_port() const noexcept {
    sockaddr_in bound = {};
    socklen_t size = sizeof bound;
    if (getsockname(descriptor(), reinterpret_cast<sockaddr*>(&bound), &size) != 0) return -1;
    return ntohs(bound.sin_port);
  }

 protected:
  MQNode* pointer_ = nullptr;

 private:
  // A code that the node copied from its socket has the meaning that it has there: 105 has another meaning in a node.
  Result outcome(int value) const noexcept {
    const int code = pointer_->error;
    return {value, code, code == pointer_->sock.error && code != MQ_AGAIN ? MQ_IN_SOCKET : MQ_IN_NODE};
  }
  template <class Function, class... Arguments>
  Result written(Function function, MessageRef msg, Arguments... arguments) const noexcept {
    const std::uint64_t sent = pointer_->sock.bytesSent;
    const int value = function(msg.get(), pointer_, arguments...);
    return of_write(value, pointer_->sock.bytesSent != sent);
  }
  // A write that was dropped stores 11 in the node, and the reason in its socket: 0 and 11 there mean no memory.
  // in_part: the peer may have received a part of the dropped message.
  Result of_write(int value, bool in_part) const noexcept {
    if (value != 0 || pointer_->error != MQ_AGAIN) return outcome(value);
    const int cause = mq_node_cause(pointer_, nullptr);
    if (in_part) close();
    return {value, MQ_AGAIN, cause != MQ_AGAIN ? cause : ENOMEM, MQ_IN_SOCKET};
  }
  Result of_socket(int value) const noexcept { return {value, pointer_->sock.error, MQ_IN_SOCKET}; }
  Result set_option(SockOption option) const noexcept { return of_socket(SetSocketOptions(&pointer_->sock, &option)); }
  // Repeats an incomplete read until the time is over. Meanwhile, the node is non-blocking.
  template <class Read>
  Result in_time(std::chrono::milliseconds longest, Read read_once) const noexcept {
    const std::int64_t end = mq_clock() + detail::to_int(longest);
    const bool blocks = (fcntl(descriptor(), F_GETFL) & O_NONBLOCK) == 0;
    if (blocks && !set_blocking(false)) return of_socket(0);
    Result result = read_once();
    for (std::int64_t left; result.again() && (left = end - mq_clock()) > 0; result = read_once()) {
      pollfd wanted = {descriptor(), POLLIN, 0};
      poll(&wanted, 1, static_cast<int>(left));
    }
    if (result.again()) result = {0, SOCK_WAIT_TIMEOUT, MQ_IN_STATUS};
    if (blocks) static_cast<void>(set_blocking(true));
    return result;
  }
};

// Node - a node, owned by this handle. A creator returns a node if there was memory for its record, with the result of
// the socket calls in status(): check failed() before use. An option replaces the default of the C function, which
// switches address reuse off.
class Node : public detail::Owned<NodeRef, DeleteMQNode> {
 public:
  using Owned::Owned;

  // CreateMQNode and CreateMQNodeWithOpt: a node that connects to addr when it is opened.
  static Node connector(Address addr) noexcept { return Node(CreateMQNode(&addr, MQ_ROLE_CONNECT)); }
  static Node connector(Address addr, SockOption option) noexcept {
    return Node(CreateMQNodeWithOpt(&addr, MQ_ROLE_CONNECT, &option));
  }
  // The same functions: a node that is bound to addr and listens.
  static Node listener(Address addr) noexcept { return Node(CreateMQNode(&addr, MQ_ROLE_LISTEN)); }
  static Node listener(Address addr, SockOption option) noexcept {
    return Node(CreateMQNodeWithOpt(&addr, MQ_ROLE_LISTEN, &option));
  }
  // CreateUDPMQNode and CreateUDPMQNodeWithOpt: a datagram node, bound to addr and open.
  static Node datagram(Address addr) noexcept { return Node(CreateUDPMQNode(&addr)); }
  static Node datagram(Address addr, SockOption option) noexcept {
    return Node(CreateUDPMQNodeWithOpt(&addr, &option));
  }
  // CreateAndBindMQNode over an open TCP file descriptor, which the node owns from then on; if there is no memory for
  // the node, the caller still owns it. role: MQ_ROLE_CONNECT if it is connected, MQ_ROLE_LISTEN if it listens.
  static Node adopt(int descriptor, int role) noexcept {
    SockRec sock;
    CreateSocketFromExisting(&sock, descriptor);
    return Node(CreateAndBindMQNode(&sock, role));
  }
};

inline Result NodeRef::accept(Node& child) const noexcept {
  const int value = mnOpen(pointer_);
  if (value == 0) return outcome(0);
  MQNode* const accepted = std::exchange(pointer_->child, nullptr);
  if (accepted == nullptr) return {0, ENOMEM, MQ_IN_SOCKET};
  child.reset(accepted);
  return {value, MQ_OK, MQ_IN_NODE};
}

// ---- Waits ----

// Nodes - a null-terminated list of nodes, as a range.
class Nodes {
 public:
  struct End {};
  class Iterator {
   public:
    explicit Iterator(MQNode* const* place) noexcept : place_(place) { pass_removed(); }
    NodeRef operator*() const noexcept { return *place_; }
    Iterator& operator++() noexcept {
      ++place_;
      pass_removed();
      return *this;
    }
    friend bool operator!=(const Iterator& at, End) noexcept { return *at.place_ != nullptr; }

   private:
    void pass_removed() noexcept {
      while (*place_ == detail::removed()) ++place_;
    }

    MQNode* const* place_;
  };

  explicit Nodes(MQNode* const* first) noexcept : first_(first) {}
  Iterator begin() const noexcept { return Iterator(first_); }
  End end() const noexcept { return {}; }
  bool empty() const noexcept { return !(begin() != end()); }
  NodeRef front() const noexcept { return *begin(); }  // empty when the list is

 private:
  MQNode* const* first_;
};

// WaitSet - the nodes to wait on, the work record of the waits and the lists of ready nodes. It does not own the nodes:
// remove a node before it is deleted.
//
//   for (set.add(listener);;) {
//     if (const Result ready = set.wait(100ms); !ready && !ready.timed_out()) return ready;
//     for (NodeRef node : set.writable()) ...
//     for (NodeRef node : set.readable()) ...
//     for (NodeRef node : set.listening()) ...
//   }
//
// While a ready list is iterated, nodes may be added, and any node may be removed and then deleted, including the
// current one: a removed node disappears from all lists.
//
// Memory: add doubles the list of nodes if necessary, and the next wait then enlarges the other lists once. Later waits
// allocate no more than the C function: nothing while all file descriptors are below 1024.
class WaitSet {
 public:
  WaitSet() noexcept = default;
  WaitSet(WaitSet&& other) noexcept { swap(other); }
  WaitSet& operator=(WaitSet&& other) noexcept {
    WaitSet(std::move(other)).swap(*this);
    return *this;
  }
  WaitSet(const WaitSet&) = delete;
  WaitSet& operator=(const WaitSet&) = delete;
  ~WaitSet() {
    FreeSocketPostData(&work_);
    std::free(ready_);
    std::free(nodes_);
  }

  // False if there is no memory. Nodes are listed in the order in which they were added.
  [[nodiscard]] bool add(NodeRef node) noexcept {
    if (size_ + 1 >= room_ && !grow()) return false;
    nodes_[size_++] = node.get();
    nodes_[size_] = nullptr;
    return true;
  }

  // False for a node that is not in the set.
  bool remove(NodeRef node) noexcept {
    int at = 0;
    while (at < size_ && nodes_[at] != node.get()) ++at;
    if (at == size_) return false;
    std::memmove(nodes_ + at, nodes_ + at + 1, sizeof *nodes_ * static_cast<std::size_t>(size_ - at));
    --size_;
    for (int list = 0; ready_ != nullptr && list < kLists; ++list) {
      for (MQNode** entry = ready_ + list * ready_room_; *entry != nullptr; ++entry) {
        if (*entry == node.get()) *entry = detail::removed();
      }
    }
    return true;
  }

  int size() const noexcept { return size_; }
  // All nodes. Do not add or remove nodes while iterating over this list.
  Nodes nodes() const noexcept { return Nodes(nodes_ != nullptr ? nodes_ : &kNone); }
  // The work record, for the C functions. Its size is 0 before the first wait.
  SockPostData& record() noexcept { return work_; }

  // mnNPostExMSec: wait until a node can be accepted on, read or written, or the time is over. If true, the lists below
  // contain the ready nodes. If false, they are empty, and the status has the reason: timed_out(), EINTR after a
  // signal, ENOMEM.
  Result wait(std::chrono::milliseconds time) noexcept { return wait_for(time, true); }
  // mnPostExMSec: the same, without waiting for writes.
  Result wait_readable(std::chrono::milliseconds time) noexcept { return wait_for(time, false); }

  // Results of the last wait: nodes to accept on; nodes to read; nodes to finish writing on, or whose connect has
  // completed.
  Nodes listening() const noexcept { return Nodes(first_of(kListening)); }
  Nodes readable() const noexcept { return Nodes(first_of(kReadable)); }
  Nodes writable() const noexcept { return Nodes(first_of(kWritable)); }

 private:
  enum { kListening, kReadable, kWritable, kLists };
  static constexpr int kFirstRoom = 16;
  static constexpr MQNode* kNone = nullptr;

  MQNode* const* first_of(int list) const noexcept { return ready_ != nullptr ? ready_ + list * ready_room_ : &kNone; }

  void swap(WaitSet& other) noexcept {
    std::swap(work_, other.work_);
    std::swap(nodes_, other.nodes_);
    std::swap(ready_, other.ready_);
    std::swap(size_, other.size_);
    std::swap(room_, other.room_);
    std::swap(ready_room_, other.ready_room_);
  }

  bool grow() noexcept {
    if (room_ > INT_MAX / 2) return false;
    const int room = room_ == 0 ? kFirstRoom : room_ * 2;
    void* const block = std::realloc(nodes_, sizeof *nodes_ * static_cast<std::size_t>(room));
    if (block == nullptr) return false;
    nodes_ = static_cast<MQNode**>(block);
    if (room_ == 0) nodes_[0] = nullptr;
    room_ = room;
    return true;
  }

  // Makes the lists and the work record as large as the list of nodes. add does not do this, because it may be called
  // while a ready list is iterated.
  bool prepare() noexcept {
    if (nodes_ == nullptr && !grow()) return false;
    if (ready_room_ == room_) return true;
    std::free(ready_);
    FreeSocketPostData(&work_);
    ready_room_ = 0;
    ready_ = static_cast<MQNode**>(std::calloc(static_cast<std::size_t>(room_) * kLists, sizeof *ready_));
    if (ready_ == nullptr || !InitSocketPostData(&work_, room_)) return false;
    ready_room_ = room_;
    return true;
  }

  Result wait_for(std::chrono::milliseconds time, bool writing) noexcept {
    int status = ENOMEM;
    if (!prepare()) return {0, status, MQ_IN_STATUS};
    const int most = detail::to_int(time);
    MQNode** const listening = ready_;
    MQNode** const readable = ready_ + ready_room_;
    MQNode** const writable = ready_ + 2 * ready_room_;
    *listening = *readable = *writable = nullptr;
    const int value = writing ? mnNPostExMSec(nodes_, listening, readable, writable, most, &status, &work_)
                              : mnPostExMSec(nodes_, listening, readable, most, &status, &work_);
    return {value, status, MQ_IN_STATUS};
  }

  SockPostData work_ = {};
  MQNode** nodes_ = nullptr;  // size_ nodes and a null pointer, in room_ entries
  MQNode** ready_ = nullptr;  // three lists of ready_room_ entries
  int size_ = 0;
  int room_ = 0;
  int ready_room_ = 0;
};

static_assert(sizeof(Node) == sizeof(MQNode*) && sizeof(Message) == sizeof(PcfMessage*), "a handle is its pointer");
static_assert(sizeof(Signer) == sizeof(MqcSigner*) && sizeof(Address) == sizeof(SockAddrRec), "nothing is added");

}  // namespace mqnode

#endif
