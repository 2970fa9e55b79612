// capture.cc - files for mqcat decode. The input bounds the output; a dump that mqcat writes is read back.
#include "tools/mqcat/capture.hh"

#include "tests/fuzz/fuzz.hh"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMostRepeated = 64u << 20;  // bytes that all '*' of a dump stand for
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  std::vector<uint8_t> file = fuzz::Copy(input.Rest());
  if ((options & 8) == 0) std::replace(file.begin(), file.end(), '*', '#');  // most of the time would go into repeating
  const mqcat::Capture capture = mqcat::ReadCapture(file, static_cast<mqcat::CaptureFormat>(options % 4));
  size_t total = 0;
  for (const mqcat::Stream& stream : capture.streams) total += stream.bytes.size();
  REQUIRE(total <= file.size() + (capture.format == mqcat::CaptureFormat::kHex ? kMostRepeated : 0));
  std::vector<uint8_t> read;
  REQUIRE(mqcat::ReadHexDump(mqcat::BytesOf(mqcat::HexDump(file)), read, size) && read == file);
  return 0;
}
