// pcap.cc - packets of a pcap file, put together to streams.
// Not here: fragments of IPv4 packets and IPv6; what is left out is counted and told.
// Invariant: a packet is a span inside the file; every header is measured before it is read.
#include <algorithm>
#include <map>
#include <optional>
#include <tuple>

#include "capture.hh"
#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr size_t kFileHeader = 24;
constexpr size_t kRecordHeader = 16;
constexpr size_t kMaxPacket = 1u << 20;
constexpr size_t kMaxWaiting = 4096;  // segments of one flow kept until the ones before them are there
enum Link : uint32_t {
  kNull = 0,
  kEthernet = 1,
  kRaw12 = 12,
  kRaw14 = 14,
  kRaw = 101,
  kLoop = 108,
  kCooked = 113,
  kIpv4 = 228,
  kCooked2 = 276
};
enum Protocol : uint8_t { kTcp = 6, kUdp = 17 };
enum TcpFlag : uint8_t { kFin = 1, kSyn = 2, kRst = 4 };

uint32_t Big16(Bytes b, size_t at) { return uint32_t{b[at]} << 8 | b[at + 1]; }
uint32_t Big32(Bytes b, size_t at) { return Big16(b, at) << 16 | Big16(b, at + 2); }

struct Packet {
  uint32_t source;
  uint32_t destination;
  uint8_t protocol;
  Bytes payload;  // behind the IPv4 header
};

std::string AddressText(uint32_t address, uint32_t port) {
  return fmt::format("{}.{}.{}.{}:{}", address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255, port);
}

// The network packet in a frame; nothing for anything but IPv4.
std::optional<Bytes> Unframe(Bytes frame, uint32_t link) {
  const auto behind = [&](size_t header, size_t type_at) -> std::optional<Bytes> {
    if (frame.size() < header || Big16(frame, type_at) != 0x0800) return std::nullopt;
    return frame.subspan(header);
  };
  switch (link) {
    case kEthernet: {
      size_t at = 12;
      while (frame.size() >= at + 4 && (Big16(frame, at) == 0x8100 || Big16(frame, at) == 0x88a8)) at += 4;
      return behind(at + 2, at);
    }
    case kCooked:
      return behind(16, 14);
    case kCooked2:
      return behind(20, 0);
    case kNull:
    case kLoop:
      if (frame.size() < 4) return std::nullopt;
      return frame.subspan(4);
    default:
      return frame;
  }
}

bool IsKnownLink(uint32_t link) {
  constexpr uint32_t kKnown[] = {kNull, kEthernet, kRaw12, kRaw14, kRaw, kLoop, kCooked, kIpv4, kCooked2};
  return std::find(std::begin(kKnown), std::end(kKnown), link) != std::end(kKnown);
}

std::optional<Packet> ReadIp(Bytes packet) {
  if (packet.size() < 20 || packet[0] >> 4 != 4) return std::nullopt;
  const size_t header = size_t{packet[0] & 15u} * 4;
  const size_t total = Big16(packet, 2);
  // A total length of 0 is what the sending host captures when the network card cuts segments.
  const size_t end = total == 0 ? packet.size() : std::min(total, packet.size());
  const bool fragment = (Big16(packet, 6) & 0x3fff) != 0;
  if (header < 20 || end < header || fragment) return std::nullopt;
  return Packet{Big32(packet, 12), Big32(packet, 16), packet[9], packet.subspan(header, end - header)};
}

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
    Bytes& place = waiting_[taken_ + ahead];
    if (place.size() < payload.size()) place = payload;
  }

  void TakeWaiting() {
    while (!waiting_.empty() && waiting_.begin()->first <= taken_) {
      const auto [at, payload] = *waiting_.begin();
      waiting_.erase(waiting_.begin());
      Append(static_cast<uint32_t>(std::min<uint64_t>(taken_ - at, UINT32_MAX)), payload);
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
  std::map<uint64_t, Bytes> waiting_;  // by their place in the flow
  uint64_t taken_ = 0;                 // bytes of the flow so far, lost ones included
  uint64_t lost_ = 0;
  uint32_t next_ = 0;  // sequence number of the next byte
  bool started_ = false;
};

class PcapReader {
 public:
  explicit PcapReader(Bytes file) : file_(file) { capture_.format = CaptureFormat::kPcap; }

  Capture Read() {
    if (!ReadFileHeader()) return std::move(capture_);
    size_t at = kFileHeader;
    while (file_.size() - at >= kRecordHeader) {
      const size_t length = Word(at + 8);
      at += kRecordHeader;
      if (length > kMaxPacket || length > file_.size() - at) {
        Fault(fmt::format("packet {} at byte {} announces {} bytes, {} are there", packets_ + 1, at - kRecordHeader,
                          length, file_.size() - at));
        at = file_.size();
        break;
      }
      ++packets_;
      Frame(file_.subspan(at, length));
      at += length;
    }
    if (at != file_.size()) Fault(fmt::format("the file ends inside the head of packet {}", packets_ + 1));
    return Finish();
  }

 private:
  bool ReadFileHeader() {
    if (file_.size() < kFileHeader) return Fault("too short for a pcap file");
    const uint32_t mark = Big32(file_, 0);
    big_ = mark == 0xa1b2c3d4 || mark == 0xa1b23c4d;
    if (!big_ && mark != 0xd4c3b2a1 && mark != 0x4d3cb2a1) return Fault("not a pcap file");
    link_ = Word(20) & 0x0fffffff;
    if (!IsKnownLink(link_)) return Fault(fmt::format("link type {} is not known", link_));
    return true;
  }

  uint32_t Word(size_t at) const {
    const uint32_t word = Big32(file_, at);
    return big_ ? word : __builtin_bswap32(word);
  }

  bool Fault(std::string text) {
    capture_.faults.push_back(std::move(text));
    return false;
  }

  void Frame(Bytes frame) {
    const auto network = Unframe(frame, link_);
    const auto packet = network ? ReadIp(*network) : std::nullopt;
    if (packet && packet->protocol == kTcp) return Tcp(*packet);
    if (packet && packet->protocol == kUdp) return Udp(*packet);
    ++skipped_;
  }

  void Tcp(const Packet& packet) {
    const Bytes segment = packet.payload;
    const size_t header = segment.size() < 20 ? 0 : size_t{segment[12]} / 16 * 4;
    if (header < 20 || header > segment.size()) {
      ++skipped_;
      return;
    }
    const uint32_t from = Big16(segment, 0);
    const uint32_t to = Big16(segment, 2);
    const auto key = std::tuple(packet.source, from, packet.destination, to);
    auto place = flow_index_.find(key);
    if (place == flow_index_.end()) {
      place = flow_index_.emplace(key, flows_.size()).first;
      flows_.emplace_back("TCP " + AddressText(packet.source, from) + " > " + AddressText(packet.destination, to));
    }
    flows_[place->second].Segment(Big32(segment, 4), segment[13], segment.subspan(header));
  }

  void Udp(const Packet& packet) {
    const Bytes datagram = packet.payload;
    const size_t length = datagram.size() < 8 ? 0 : Big16(datagram, 4);
    if (length < 8) {
      ++skipped_;
      return;
    }
    const Bytes payload = datagram.subspan(8, std::min(length, datagram.size()) - 8);
    capture_.streams.push_back({"UDP " + AddressText(packet.source, Big16(datagram, 0)) + " > " +
                                    AddressText(packet.destination, Big16(datagram, 2)),
                                true,
                                {payload.begin(), payload.end()}});
  }

  Capture Finish() {
    std::vector<Stream> streams;
    for (Flow& flow : flows_) {
      flow.Finish();
      if (flow.lost() != 0) Fault(fmt::format("{}: {} bytes are missing from the file", flow.name(), flow.lost()));
      std::move(flow.done().begin(), flow.done().end(), std::back_inserter(streams));
    }
    std::move(capture_.streams.begin(), capture_.streams.end(), std::back_inserter(streams));
    capture_.streams = std::move(streams);
    if (skipped_ != 0)
      capture_.notes.push_back(fmt::format("{} of {} packets carry no IPv4 TCP or UDP", skipped_, packets_));
    return std::move(capture_);
  }

  Bytes file_;
  Capture capture_;
  std::vector<Flow> flows_;
  std::map<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>, size_t> flow_index_;
  uint32_t link_ = 0;
  bool big_ = false;
  uint64_t packets_ = 0;
  uint64_t skipped_ = 0;
};

}  // namespace

Capture ReadPcap(Bytes file) { return PcapReader(file).Read(); }

}  // namespace mqcat
