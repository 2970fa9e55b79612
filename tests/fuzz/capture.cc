// capture.cc - files for mqcat decode, arriving in pieces. The input's size bounds the output; a dump written by mqcat
// is read back.
#include "tools/mqcat/capture.hh"

#include "tests/fuzz/fuzz.hh"

namespace {

// Adds up the bytes of all streams.
struct Total : mqcat::Receiver {
  struct Part : mqcat::Stream {
    explicit Part(Total& total) : total_(total) {}
    void Take(mqcat::Bytes data) override { total_.bytes += data.size(); }
    void End() override {}
    size_t held() const override { return 0; }
    Total& total_;
  };

  std::unique_ptr<mqcat::Stream> Begin(std::string) override { return std::make_unique<Part>(*this); }
  void Datagram(const std::string&, mqcat::Bytes data) override { bytes += data.size(); }
  void Fault(std::string) override {}
  void Note(std::string) override {}
  size_t bytes = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMostRepeated = 64u << 20;  // bytes that all '*' of a dump may repeat
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  std::vector<uint8_t> file = fuzz::Copy(input.Rest());
  if ((options & 8) == 0) std::replace(file.begin(), file.end(), '*', '#');  // repeating would take most of the time
  Total total;
  mqcat::Bytes rest = file;
  const auto next = [&, chunk = 1u + options / 16]() mutable {
    const mqcat::Bytes part = rest.first(std::min<size_t>(rest.size(), chunk));
    rest = rest.subspan(part.size());
    chunk *= 2;
    return part;
  };
  mqcat::ReadCapture(next, static_cast<mqcat::CaptureFormat>(options % 4), total);
  REQUIRE(total.bytes <= file.size() + kMostRepeated);
  std::vector<uint8_t> read;
  REQUIRE(mqcat::ReadHexDump(mqcat::BytesOf(mqcat::HexDump(file)), read, size) && read == file);
  return 0;
}
