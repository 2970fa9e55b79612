// pcap.cc - captures from files, pipes and interfaces, read with libpcap. packets.cc joins the packets.
#include <pcap/pcap.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
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

constexpr int kSnapshot = 262144;  // bytes, longest packet taken from an interface
constexpr int kBuffer = 16 << 20;  // bytes of packets that the system buffers
constexpr int kDelay = 100;        // milliseconds that the system may hold packets back

using Handle = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

// Frames of an open capture, counted.
struct Source {
  pcap_t* handle;
  uint64_t packets = 0;
  int result = 0;  // of pcap_next_ex: 0 when an interface has no packet now

  std::optional<Bytes> Next() {
    pcap_pkthdr* head = nullptr;
    const uint8_t* data = nullptr;
    result = pcap_next_ex(handle, &head, &data);
    if (result != 1) return std::nullopt;
    ++packets;
    return Bytes(data, head->caplen);
  }
};

std::string LinkFault(int link) { return fmt::format("link type {} is not supported", link); }

// The bytes of a capture for libpcap, which reads a stdio stream. A failure of the source must not pass through C code.
struct Feed {
  Bytes rest;
  const ByteSource& next;
  std::exception_ptr failure = nullptr;

  ssize_t Read(char* to, size_t size) {
    try {
      if (rest.empty()) rest = next();
    } catch (...) {
      failure = std::current_exception();
      errno = EIO;
      return -1;
    }
    const size_t count = std::min(size, rest.size());
    std::copy_n(rest.begin(), count, to);
    rest = rest.subspan(count);
    return static_cast<ssize_t>(count);
  }
  void Rethrow() const {
    if (failure) std::rethrow_exception(failure);
  }
};

// Null, with the reason in error, if the bytes do not begin a capture.
Handle OpenFeed(Feed& feed, char* error) {
  cookie_io_functions_t functions = {};
  functions.read = [](void* cookie, char* to, size_t size) { return static_cast<Feed*>(cookie)->Read(to, size); };
  FILE* const file = fopencookie(&feed, "r", functions);
  if (file == nullptr) throw std::bad_alloc();
  Handle handle(pcap_fopen_offline(file, error), pcap_close);
  if (!handle) fclose(file);
  return handle;
}

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

void ReadPcap(Bytes begin, const ByteSource& next, Receiver& receiver) {
  Feed feed{begin, next};
  char error[PCAP_ERRBUF_SIZE] = "";
  const Handle handle = OpenFeed(feed, error);
  feed.Rethrow();
  if (!handle) {
    return receiver.Fault(Interrupted() ? "interrupted within the header of the capture"
                                        : fmt::format("not a pcap or pcapng file: {}", error));
  }
  const int link = pcap_datalink(handle.get());
  if (!IsKnownLink(link)) return receiver.Fault(LinkFault(link));
  Source source{handle.get()};
  AssembleStreams(
      link, [&source] { return source.Next(); }, receiver);
  feed.Rethrow();
  if (source.result == PCAP_ERROR && !Interrupted()) {
    receiver.Fault(fmt::format("after packet {}: {}", source.packets, pcap_geterr(handle.get())));
  }
}

void CaptureInterface(const std::string& name, const std::string& filter, uint64_t count,
                      const std::function<void()>& idle, Receiver& receiver) {
  const Handle handle = OpenInterface(name);
  if (!filter.empty()) SetFilter(handle.get(), filter);
  Note(fmt::format("capturing up to {} packets from {}", count, name));
  Source source{handle.get()};
  const auto next = [&]() -> std::optional<Bytes> {
    while (!Interrupted() && source.packets < count) {
      if (const auto frame = source.Next(); frame || source.result != 0) return frame;
      idle();
      pollfd wait = {pcap_get_selectable_fd(handle.get()), POLLIN, 0};
      poll(&wait, 1, kDelay);
    }
    return std::nullopt;
  };
  AssembleStreams(pcap_datalink(handle.get()), next, receiver);
  if (source.result == PCAP_ERROR) receiver.Fault(pcap_geterr(handle.get()));
  pcap_stat stats = {};
  if (pcap_stats(handle.get(), &stats) == 0 && stats.ps_drop != 0) {
    receiver.Fault(fmt::format("the system dropped {} packets", stats.ps_drop));
  }
}

}  // namespace mqcat
