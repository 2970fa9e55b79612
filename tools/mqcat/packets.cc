// packets.cc - see packets.hh.
// Not here: files and interfaces (pcap.cc); IPv6: packets that are passed over are counted.
// Invariant: a packet is a span inside its frame; every header is measured before it is read.
#include "packets.hh"

#include <pcap/pcap.h>

#include <algorithm>
#include <bitset>
#include <deque>
#include <map>
#include <tuple>

#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr size_t kMaxWaiting = 4096;  // segments of one flow kept until the ones before them are there
constexpr size_t kMaxPartial = 64;    // packets kept until all their fragments are there
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
  Bytes payload;  // behind the IPv4 header
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
  const auto behind = [&](size_t header, size_t type_at) -> std::optional<Bytes> {
    if (frame.size() < header || Big16(frame, type_at) != 0x0800) return std::nullopt;
    return frame.subspan(header);
  };
  switch (link) {
    case DLT_EN10MB: {
      size_t at = 12;
      while (frame.size() >= at + 4 && (Big16(frame, at) == 0x8100 || Big16(frame, at) == 0x88a8)) at += 4;
      return behind(at + 2, at);
    }
    case DLT_LINUX_SLL:
      return behind(16, 14);
    case DLT_LINUX_SLL2:
      return behind(20, 0);
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
  // A total length of 0 is what the sending host captures when the network card cuts segments.
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

// Fragments until their packets are whole. The oldest of too many packets is given up.
class Fragments {
 public:
  // Nothing is missing any more: the packet gets its whole payload, valid until the next call.
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

  // Fragments of packets that never became whole.
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
    std::bitset<kMaxPayload / kFragmentUnit + 1> units;  // that are there
    size_t length;                                       // 0 until the last fragment is there
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

// One direction of a TCP connection: bytes in order, and segments that came too early.
class Flow {
 public:
  explicit Flow(std::string name) : name_(std::move(name)) {}

  void Segment(uint32_t sequence, uint8_t flags, Bytes payload) {
    if ((flags & kSyn) != 0) {
      if (started_) Finish();
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

  // Hands out everything, with a cut where bytes are missing.
  void Finish() {
    while (!waiting_.empty()) {
      const uint64_t missing = waiting_.begin()->first - taken_;
      Cut();
      lost_ += missing;
      taken_ += missing;
      next_ += static_cast<uint32_t>(missing);
      TakeWaiting();
    }
    Cut();
    started_ = false;
  }

  std::vector<Stream>& done() { return done_; }
  uint64_t lost() const { return lost_; }
  const std::string& name() const { return name_; }

 private:
  void Append(uint32_t known, Bytes payload) {
    if (known >= payload.size()) return;
    const Bytes fresh = payload.subspan(known);
    bytes_.insert(bytes_.end(), fresh.begin(), fresh.end());
    next_ += static_cast<uint32_t>(fresh.size());
    taken_ += fresh.size();
  }

  void Keep(uint32_t ahead, Bytes payload) {
    if (waiting_.size() >= kMaxWaiting) return Finish();
    std::vector<uint8_t>& place = waiting_[taken_ + ahead];
    if (place.size() < payload.size()) place.assign(payload.begin(), payload.end());
  }

  void TakeWaiting() {
    while (!waiting_.empty() && waiting_.begin()->first <= taken_) {
      const auto first = waiting_.extract(waiting_.begin());
      Append(static_cast<uint32_t>(std::min<uint64_t>(taken_ - first.key(), UINT32_MAX)), first.mapped());
    }
  }

  void Cut() {
    if (bytes_.empty()) return;
    std::string name = done_.empty() ? name_ : fmt::format("{} (part {})", name_, done_.size() + 1);
    done_.push_back({std::move(name), false, std::move(bytes_)});
    bytes_.clear();
  }

  std::string name_;
  std::vector<uint8_t> bytes_;
  std::vector<Stream> done_;
  std::map<uint64_t, std::vector<uint8_t>> waiting_;  // by their place in the flow
  uint64_t taken_ = 0;                                // bytes of the flow so far, lost ones included
  uint64_t lost_ = 0;
  uint32_t next_ = 0;  // sequence number of the next byte
  bool started_ = false;
};

class Assembler {
 public:
  explicit Assembler(int link) : link_(link) {}

  void Frame(Bytes frame) {
    ++packets_;
    const auto network = Unframe(frame, link_);
    auto packet = network ? ReadIp(*network) : std::nullopt;
    const bool fragment = packet && (packet->more || packet->offset != 0);
    if (fragment && !fragments_.Join(*packet)) return;
    const bool taken = packet && (packet->protocol == kTcp ? Tcp(*packet) : packet->protocol == kUdp && Udp(*packet));
    if (!taken) ++skipped_;
  }

  Capture Finish() {
    Capture capture;
    capture.format = CaptureFormat::kPcap;
    for (Flow& flow : flows_) {
      flow.Finish();
      if (flow.lost() != 0) {
        capture.faults.push_back(fmt::format("{}: {} bytes are missing from the capture", flow.name(), flow.lost()));
      }
      std::move(flow.done().begin(), flow.done().end(), std::back_inserter(capture.streams));
    }
    std::move(datagrams_.begin(), datagrams_.end(), std::back_inserter(capture.streams));
    if (const uint64_t unjoined = fragments_.Unjoined(); unjoined != 0) {
      capture.faults.push_back(Count(unjoined, "fragment") + " without the rest of the packet");
    }
    if (skipped_ != 0) {
      capture.notes.push_back(fmt::format("{} of {} packets carry no IPv4 TCP or UDP", skipped_, packets_));
    }
    return capture;
  }

 private:
  bool Tcp(const Packet& packet) {
    const Bytes segment = packet.payload;
    const size_t header = segment.size() < 20 ? 0 : size_t{segment[12]} / 16 * 4;
    if (header < 20 || header > segment.size()) return false;
    const auto key = std::tuple(packet.source, packet.destination, Big32(segment, 0));
    const auto [place, is_new] = flow_index_.try_emplace(key, flows_.size());
    if (is_new) flows_.emplace_back(FlowName("TCP", packet));
    flows_[place->second].Segment(Big32(segment, 4), segment[13], segment.subspan(header));
    return true;
  }

  bool Udp(const Packet& packet) {
    const Bytes datagram = packet.payload;
    const size_t length = datagram.size() < 8 ? 0 : Big16(datagram, 4);
    if (length < 8) return false;
    const Bytes payload = datagram.subspan(8, std::min(length, datagram.size()) - 8);
    datagrams_.push_back({FlowName("UDP", packet), true, {payload.begin(), payload.end()}});
    return true;
  }

  int link_;
  Fragments fragments_;
  std::vector<Flow> flows_;
  std::map<std::tuple<uint32_t, uint32_t, uint32_t>, size_t> flow_index_;  // by addresses and both ports
  std::vector<Stream> datagrams_;
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

Capture AssembleStreams(int link, const std::function<std::optional<Bytes>()>& next) {
  Assembler assembler(link);
  while (const std::optional<Bytes> frame = next()) assembler.Frame(*frame);
  return assembler.Finish();
}

}  // namespace mqcat
