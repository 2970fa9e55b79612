// capture.cc - files for mqcat decode: pcap, hexadecimal dumps, raw bytes. What comes out is bounded by what went in,
// and a dump that mqcat writes is read as the bytes that it shows.
#include "tools/mqcat/capture.hh"

#include "tests/fuzz/fuzz.hh"
#include "tools/mqcat/decode.hh"

namespace {

constexpr uint8_t kDump = 4;                 // an option; the two bits below it choose the format
constexpr size_t kMostRepeated = 64u << 20;  // bytes that all '*' of a dump stand for

void CheckDump(fuzz::Bytes bytes) {
  const std::string dump = mqcat::HexDump(bytes);
  std::vector<uint8_t> read;
  size_t bad_line;
  HOLDS(mqcat::ReadHexDump(mqcat::BytesOf(dump), read, bad_line));
  HOLDS(fuzz::Same(bytes, read));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr mqcat::CaptureFormat kFormats[] = {mqcat::CaptureFormat::kAuto, mqcat::CaptureFormat::kRaw,
                                               mqcat::CaptureFormat::kHex, mqcat::CaptureFormat::kPcap};
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  const std::vector<uint8_t> file = fuzz::Copy(input.Rest());
  const mqcat::Capture capture = mqcat::ReadCapture(file, kFormats[options % 4]);
  const bool dump = capture.format == mqcat::CaptureFormat::kHex;
  size_t total = 0;
  for (const mqcat::Stream& stream : capture.streams) {
    total += stream.bytes.size();
    mqcat::DecodeOptions how;
    how.datagram = stream.datagram;
    if (stream.bytes.size() <= file.size()) mqcat::Decode(stream.bytes, how, [](const mqcat::Piece&) {});
  }
  HOLDS(total <= file.size() + (dump ? kMostRepeated : 0));
  if ((options & kDump) != 0) CheckDump(file);
  return 0;
}
