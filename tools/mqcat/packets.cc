// packets.cc - see packets.hh.
// Not here: files and interfaces (pcap.cc); IPv6: such packets are counted and left out.
// Invariant: a packet is a span inside its frame; the length of every header is checked before it is read.
#include "packets.hh"

#include <pcap/pcap.h>

#include <algorithm>
#include <bitset>
#include <deque>
#include <list>
#include <map>
#include <tuple>

#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr size_t kMaxWaiting = 4096;    // segments of one flow that wait for earlier ones
constexpr size_t kMaxPartial = 64;      // packets that wait for fragments
constexpr size_t kMaxFlows = 1u << 16;  // flows, and their bytes of memory, until the one quiet longest is given up
constexpr size_t kMaxHeld = 1u << 30;
constexpr size_t kMaxPayload = 65535;
constexpr size_t kFragmentUnit = 8;

enum Protocol : uint8_t { kTcp = 6, kUdp = 17 };
enum TcpFlag : uint8_t { kSyn = 2 };

uint32_t Big16(Bytes b, size_t at) { return uint32_t{b[at]} << 8 | b[at + 1]; }
uint32_t Big32(Bytes b, size_t at) { return Big16(b, at) << 16 | Big16(b, at + 2); }

struct Packet {
  uint32_t source;
  uint32_t destination;
  uint8_t protocol;
  uint16_t id;
  size_t offset;  // of a fragment's payload in the packet's
  bool more;      // fragments follow
  Bytes payload;  // after the IPv4 header
};

std::string AddressText(uint32_t address, uint32_t port) {
  return fmt::format("{}.{}.{}.{}:{}", address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255, port);
}

std::string FlowName(const char* protocol, const Packet& packet) {
  return fmt::format("{} {} > {}", protocol, AddressText(packet.source, Big16(packet.payload, 0)),
                     AddressText(packet.destination, Big16(packet.payload, 2)));
}

// The network packet in a frame; nothing for anything but IPv4.
std::optional<Bytes> Unframe(Bytes frame, int link) {
  const auto after = [&](size_t header, size_t type_at) -> std::optional<Bytes> {
    if (frame.size() < header || Big16(frame, type_at) != 0x0800) return std::nullopt;
    return frame.subspan(header);
  };
  switch (link) {
    case DLT_EN10MB: {
      size_t at = 12;
      while (frame.size() >= at + 4 && (Big16(frame, at) == 0x8100 || Big16(frame, at) == 0x88a8)) at += 4;
      return after(at + 2, at);
    }
    case DLT_LINUX_SLL:
      return after(16, 14);
    case DLT_LINUX_SLL2:
      return after(20, 0);
    case DLT_NULL:
    case DLT_LOOP:
      if (frame.size() < 4) return std::nullopt;
      return frame.subspan(4);
    default:
      return frame;
  }
}

std::optional<Packet> ReadIp(Bytes packet) {
  if (packet.size() < 20 || packet[0] >> 4 != 4) return std::nullopt;
  const size_t header = size_t{packet[0] & 15u} * 4;
  const size_t total = Big16(packet, 2);
  // The total length is 0 in packets captured on the sending host if the network card does the segmentation.
  const size_t end = total == 0 ? packet.size() : std::min(total, packet.size());
  if (header < 20 || end < header) return std::nullopt;
  const uint32_t fragment = Big16(packet, 6);
  return Packet{Big32(packet, 12),
                Big32(packet, 16),
                packet[9],
                static_cast<uint16_t>(Big16(packet, 4)),
                (fragment & 0x1fff) * kFragmentUnit,
                (fragment & 0x2000) != 0,
                packet.subspan(header, end - header)};
}

// Joins fragments. Of too many incomplete packets the oldest is given up.
class Fragments {
 public:
  // True if the packet is complete: it gets its whole payload, valid until the next call.
  bool Join(Packet& packet) {
    const Key key(packet.source, packet.destination, packet.protocol, packet.id);
    const auto same = [&key](const Partial& partial) { return partial.key == key; };
    auto partial = std::find_if(partials_.begin(), partials_.end(), same);
    if (partial == partials_.end()) {
      if (partials_.size() == kMaxPartial) GiveUpOldest();
      partial = partials_.insert(partials_.end(), Partial{key, {}, {}, 0, 0});
    }
    if (!partial->Add(packet)) return false;
    whole_ = std::move(partial->payload);
    partials_.erase(partial);
    packet.payload = whole_;
    return true;
  }

  // Fragments of incomplete packets.
  uint64_t Unjoined() const {
    uint64_t count = given_up_;
    for (const Partial& partial : partials_) count += partial.fragments;
    return count;
  }

 private:
  using Key = std::tuple<uint32_t, uint32_t, uint8_t, uint16_t>;
  struct Partial {
    Key key;
    std::vector<uint8_t> payload;
    std::bitset<kMaxPayload / kFragmentUnit + 1> units;  // that have arrived
    size_t length;                                       // 0 until the last fragment has arrived
    uint64_t fragments;

    bool Add(const Packet& packet) {
      ++fragments;
      const size_t size = packet.payload.size();
      const size_t end = packet.offset + size;
      if (end > kMaxPayload || (packet.more && size % kFragmentUnit != 0)) return false;
      if (payload.size() < end) payload.resize(end);
      std::copy(packet.payload.begin(), packet.payload.end(),
                payload.begin() + static_cast<std::ptrdiff_t>(packet.offset));
      for (size_t at = packet.offset; at < end; at += kFragmentUnit) units.set(at / kFragmentUnit);
      if (!packet.more) length = end;
      return length != 0 && payload.size() == length && units.count() == (length + kFragmentUnit - 1) / kFragmentUnit;
    }
  };

  void GiveUpOldest() {
    given_up_ += partials_.front().fragments;
    partials_.pop_front();
  }

  std::deque<Partial> partials_;
  std::vector<uint8_t> whole_;
  uint64_t given_up_ = 0;
};

// One direction of a TCP connection. Hands its bytes on in order; segments that come too early wait.
class Flow {
 public:
  Flow(std::string name, Receiver& receiver) : name_(std::move(name)), receiver_(receiver) {}

  void Segment(uint32_t sequence, uint8_t flags, Bytes payload) {
    if ((flags & kSyn) != 0) {
      if (started_) HandOutAll();
      started_ = true;
      next_ = sequence + 1;
      return;
    }
    if (payload.empty()) return;
    if (!started_) {
      started_ = true;
      next_ = sequence;
    }
    const auto ahead = static_cast<int32_t>(sequence - next_);
    if (ahead > 0) return Keep(static_cast<uint32_t>(ahead), payload);
    Append(static_cast<uint32_t>(-static_cast<int64_t>(ahead)), payload);
    TakeWaiting();
  }

  void Finish() {
    HandOutAll();
    if (lost_ != 0) receiver_.Fault(fmt::format("{}: {} bytes are missing from the capture", name_, lost_));
  }

  size_t held() const { return waiting_bytes_ + (stream_ ? stream_->held() : 0); }

 private:
  // Hands on what waits. A new stream begins where bytes are missing.
  void HandOutAll() {
    while (!waiting_.empty()) {
      const uint64_t missing = waiting_.begin()->first - taken_;
      EndStream();
      lost_ += missing;
      taken_ += missing;
      next_ += static_cast<uint32_t>(missing);
      TakeWaiting();
    }
    EndStream();
    started_ = false;
  }

  void Append(uint32_t known, Bytes payload) {
    if (known >= payload.size()) return;
    const Bytes fresh = payload.subspan(known);
    if (!stream_) {
      ++streams_;
      stream_ = receiver_.Begin(streams_ == 1 ? name_ : fmt::format("{} (part {})", name_, streams_));
    }
    stream_->Take(fresh);
    next_ += static_cast<uint32_t>(fresh.size());
    taken_ += fresh.size();
  }

  void Keep(uint32_t ahead, Bytes payload) {
    if (waiting_.size() >= kMaxWaiting) return HandOutAll();
    std::vector<uint8_t>& place = waiting_[taken_ + ahead];
    if (place.size() >= payload.size()) return;
    waiting_bytes_ += payload.size() - place.size();
    place.assign(payload.begin(), payload.end());
  }

  void TakeWaiting() {
    while (!waiting_.empty() && waiting_.begin()->first <= taken_) {
      const auto first = waiting_.extract(waiting_.begin());
      waiting_bytes_ -= first.mapped().size();
      Append(static_cast<uint32_t>(std::min<uint64_t>(taken_ - first.key(), UINT32_MAX)), first.mapped());
    }
  }

  void EndStream() {
    if (stream_) stream_->End();
    stream_.reset();
  }

  std::string name_;
  Receiver& receiver_;
  std::unique_ptr<Stream> stream_;
  uint64_t streams_ = 0;
  std::map<uint64_t, std::vector<uint8_t>> waiting_;  // by their place in the flow
  size_t waiting_bytes_ = 0;
  uint64_t taken_ = 0;  // bytes of the flow so far, lost ones included
  uint64_t lost_ = 0;
  uint32_t next_ = 0;  // sequence number of the next byte
  bool started_ = false;
};

class Assembler {
 public:
  Assembler(int link, Receiver& receiver) : link_(link), receiver_(receiver) {}

  void Frame(Bytes frame) {
    ++packets_;
    const auto network = Unframe(frame, link_);
    auto packet = network ? ReadIp(*network) : std::nullopt;
    const bool fragment = packet && (packet->more || packet->offset != 0);
    if (fragment && !fragments_.Join(*packet)) return;
    const bool taken = packet && (packet->protocol == kTcp ? Tcp(*packet) : packet->protocol == kUdp && Udp(*packet));
    if (!taken) ++skipped_;
  }

  void Finish() {
    for (auto& [key, flow] : flows_) flow.Finish();
    if (const uint64_t unjoined = fragments_.Unjoined(); unjoined != 0) {
      receiver_.Fault(Count(unjoined, "fragment") + " without the rest of the packet");
    }
    if (skipped_ != 0) {
      receiver_.Note(fmt::format("{} of {} packets carry no IPv4 TCP or UDP", skipped_, packets_));
    }
  }

 private:
  using Key = std::tuple<uint32_t, uint32_t, uint32_t>;  // addresses and both ports

  bool Tcp(const Packet& packet) {
    const Bytes segment = packet.payload;
    const size_t header = segment.size() < 20 ? 0 : size_t{segment[12]} / 16 * 4;
    if (header < 20 || header > segment.size()) return false;
    Flow& flow = FlowOf({packet.source, packet.destination, Big32(segment, 0)}, packet);
    held_ -= flow.held();
    flow.Segment(Big32(segment, 4), segment[13], segment.subspan(header));
    held_ += flow.held();
    while (flows_.size() > kMaxFlows || (held_ > kMaxHeld && flows_.size() > 1)) GiveUpOldest();
    return true;
  }

  // Moves the flow to the end of the list.
  Flow& FlowOf(const Key& key, const Packet& packet) {
    const auto known = flow_index_.find(key);
    if (known == flow_index_.end()) {
      flows_.emplace_back(key, Flow(FlowName("TCP", packet), receiver_));
      flow_index_.emplace(key, std::prev(flows_.end()));
    } else {
      flows_.splice(flows_.end(), flows_, known->second);
    }
    return flows_.back().second;
  }

  void GiveUpOldest() {
    auto& [key, flow] = flows_.front();
    held_ -= flow.held();
    flow.Finish();
    flow_index_.erase(key);
    flows_.pop_front();
  }

  bool Udp(const Packet& packet) {
    const Bytes datagram = packet.payload;
    const size_t length = datagram.size() < 8 ? 0 : Big16(datagram, 4);
    if (length < 8) return false;
    receiver_.Datagram(FlowName("UDP", packet), datagram.subspan(8, std::min(length, datagram.size()) - 8));
    return true;
  }

  int link_;
  Receiver& receiver_;
  Fragments fragments_;
  std::list<std::pair<Key, Flow>> flows_;  // the one quiet longest first
  std::map<Key, std::list<std::pair<Key, Flow>>::iterator> flow_index_;
  size_t held_ = 0;  // by all flows
  uint64_t packets_ = 0;
  uint64_t skipped_ = 0;
};

}  // namespace

bool IsKnownLink(int link) {
  constexpr int kOpenBsdRaw = 14;
  constexpr int kKnown[] = {DLT_NULL, DLT_EN10MB,    DLT_RAW,  kOpenBsdRaw,
                            DLT_LOOP, DLT_LINUX_SLL, DLT_IPV4, DLT_LINUX_SLL2};
  return std::find(std::begin(kKnown), std::end(kKnown), link) != std::end(kKnown);
}

void AssembleStreams(int link, const std::function<std::optional<Bytes>()>& next, Receiver& receiver) {
  Assembler assembler(link, receiver);
  while (const std::optional<Bytes> frame = next()) assembler.Frame(*frame);
  assembler.Finish();
}

}  // namespace mqcat
