// pcap.cc - captures from files and interfaces, read by libpcap. packets.cc puts the packets together.
#include <pcap/pcap.h>
#include <poll.h>

#include <cstdio>
#include <memory>
#include <new>
#include <optional>

#include "capture.hh"
#include "failure.hh"
#include "fmt/format.h"
#include "output.hh"
#include "packets.hh"
#include "signals.hh"

namespace mqcat {
namespace {

constexpr int kSnapshot = 262144;             // longest packet taken from an interface
constexpr int kBuffer = 16 << 20;             // bytes of packets that the system keeps for us
constexpr int kDelay = 100;                   // milliseconds that the system may keep packets to itself
constexpr uint64_t kMostLive = 512ull << 20;  // bytes taken from an interface

using Handle = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

// Frames of an open capture, counted.
struct Source {
  pcap_t* handle;
  uint64_t packets = 0;
  uint64_t bytes = 0;
  int result = 0;  // of pcap_next_ex: 0 when an interface has no packet now

  std::optional<Bytes> Next() {
    pcap_pkthdr* head = nullptr;
    const uint8_t* data = nullptr;
    result = pcap_next_ex(handle, &head, &data);
    if (result != 1) return std::nullopt;
    ++packets;
    bytes += head->caplen;
    return Bytes(data, head->caplen);
  }
};

Capture Broken(std::string fault) {
  Capture capture;
  capture.format = CaptureFormat::kPcap;
  capture.faults.push_back(std::move(fault));
  return capture;
}

std::string LinkFault(int link) { return fmt::format("link type {} is not known", link); }

// Opens an interface that delivers packets without blocking.
Handle OpenInterface(const std::string& name) {
  char error[PCAP_ERRBUF_SIZE] = "";
  Handle handle(pcap_create(name.c_str(), error), pcap_close);
  const auto fail = [&name](const std::string& why) {
    throw Failure{kExitInput, fmt::format("capture from {}: {}", name, why)};
  };
  if (!handle) fail(error);
  pcap_set_snaplen(handle.get(), kSnapshot);
  pcap_set_buffer_size(handle.get(), kBuffer);
  pcap_set_timeout(handle.get(), kDelay);
  const int status = pcap_activate(handle.get());
  if (status < 0) {
    const char* const why = pcap_geterr(handle.get());
    fail(*why == '\0' ? pcap_statustostr(status) : why);
  }
  if (pcap_setnonblock(handle.get(), 1, error) != 0) fail(error);
  if (!IsKnownLink(pcap_datalink(handle.get()))) fail(LinkFault(pcap_datalink(handle.get())));
  return handle;
}

void SetFilter(pcap_t* handle, const std::string& filter) {
  bpf_program program = {};
  const bool good = pcap_compile(handle, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
  const bool set = good && pcap_setfilter(handle, &program) == 0;
  if (good) pcap_freecode(&program);
  if (!set) throw Failure{kExitUsage, fmt::format("--filter: {}", pcap_geterr(handle))};
}

}  // namespace

Capture ReadPcap(Bytes file) {
  if (file.empty()) return Broken("an empty file is not a pcap file");
  FILE* const stream = fmemopen(const_cast<uint8_t*>(file.data()), file.size(), "r");
  if (stream == nullptr) throw std::bad_alloc();
  char error[PCAP_ERRBUF_SIZE] = "";
  const Handle handle(pcap_fopen_offline(stream, error), pcap_close);
  if (!handle) {
    fclose(stream);
    return Broken(fmt::format("not a pcap or pcapng file: {}", error));
  }
  const int link = pcap_datalink(handle.get());
  if (!IsKnownLink(link)) return Broken(LinkFault(link));
  Source source{handle.get()};
  Capture capture = AssembleStreams(link, [&source] { return source.Next(); });
  if (source.result == PCAP_ERROR) {
    capture.faults.push_back(fmt::format("after packet {}: {}", source.packets, pcap_geterr(handle.get())));
  }
  return capture;
}

Capture CaptureInterface(const std::string& name, const std::string& filter, uint64_t count) {
  const Handle handle = OpenInterface(name);
  if (!filter.empty()) SetFilter(handle.get(), filter);
  Note(fmt::format("capturing up to {} packets from {}", count, name));
  Source source{handle.get()};
  Capture capture = AssembleStreams(pcap_datalink(handle.get()), [&]() -> std::optional<Bytes> {
    while (!Interrupted() && source.packets < count && source.bytes < kMostLive) {
      if (const auto frame = source.Next(); frame || source.result != 0) return frame;
      pollfd wait = {pcap_get_selectable_fd(handle.get()), POLLIN, 0};
      poll(&wait, 1, kDelay);
    }
    return std::nullopt;
  });
  if (source.result == PCAP_ERROR) capture.faults.push_back(pcap_geterr(handle.get()));
  if (source.bytes >= kMostLive) capture.notes.push_back(fmt::format("stopped after {} bytes", source.bytes));
  pcap_stat stats = {};
  if (pcap_stats(handle.get(), &stats) == 0 && stats.ps_drop != 0) {
    capture.faults.push_back(fmt::format("the system dropped {} packets", stats.ps_drop));
  }
  return capture;
}

}  // namespace mqcat
