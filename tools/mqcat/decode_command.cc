// decode_command.cc - mqcat decode: shows what decode.hh finds in the streams that capture.hh finds in a file.
#include <memory>
#include <nlohmann/json.hpp>

#include "capture.hh"
#include "decode.hh"
#include "input.hh"
#include "options.hh"
#include "output.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxFile = 1u << 30;
constexpr size_t kAllText = 1u << 30;
constexpr size_t kNarrow = 76;  // columns below which a meaning gets a line of its own

struct Options {
  std::string file = "-";
  std::string input = "auto";
  std::string format = "text";
  bool full = false;
};

struct Totals {
  uint64_t messages = 0;
  uint64_t stray_bytes = 0;
  uint64_t faults = 0;
};

CaptureFormat FormatOf(const std::string& name) {
  if (name == "raw") return CaptureFormat::kRaw;
  if (name == "hex") return CaptureFormat::kHex;
  if (name == "pcap") return CaptureFormat::kPcap;
  return CaptureFormat::kAuto;
}

const char* KindName(PieceKind kind) {
  switch (kind) {
    case PieceKind::kPlain:
      return "plain message";
    case PieceKind::kSecure:
      return "signed message";
    default:
      return "stray bytes";
  }
}

std::string Headline(const Piece& piece, uint64_t number) {
  const std::string where = fmt::format("at byte {}, {} bytes", piece.offset, piece.size);
  if (piece.kind == PieceKind::kStray) return fmt::format("{} {}\n", KindName(piece.kind), where);
  return fmt::format("message {}: {} {}, {}-endian, {}\n", number, KindName(piece.kind), where,
                     piece.big_endian ? "big" : "little", piece.ebcdic ? "EBCDIC" : "ASCII");
}

std::string FieldLine(const Field& field, size_t width) {
  const std::string place = fmt::format("  {:>6} {:>4}  ", field.offset, field.size);
  if (width >= kNarrow) {
    const std::string meaning = field.meaning.empty() ? "" : "  " + field.meaning;
    return fmt::format("{}{:<20} {}{}\n", place, field.name, field.value, meaning);
  }
  const std::string meaning = field.meaning.empty() ? "" : fmt::format("    {}\n", field.meaning);
  return fmt::format("  {} {}  {} {}\n{}", field.offset, field.size, field.name, field.value, meaning);
}

void PrintText(const Piece& piece, uint64_t number) {
  const size_t width = OutputWidth();
  Print(Wrap(Headline(piece, number), width));
  for (const Field& field : piece.fields) {
    const std::string line = FieldLine(field, width);
    Print(OutputIsTerminal() ? Wrap(line, width) : line);
  }
  for (const Fault& fault : piece.faults) {
    Print(Wrap(fmt::format("  FAULT at byte {}: {}: {}\n", fault.offset, fault.rule, fault.text), width));
  }
  Print("\n");
}

void PrintObject(const Piece& piece, const std::string& stream) {
  nlohmann::ordered_json json = {{"kind", KindName(piece.kind)}, {"offset", piece.offset}, {"size", piece.size}};
  if (!stream.empty()) json["stream"] = stream;
  if (piece.kind != PieceKind::kStray) {
    json["byteOrder"] = piece.big_endian ? "big" : "little";
    json["charset"] = piece.ebcdic ? "EBCDIC" : "ASCII";
  }
  json["fields"] = nlohmann::ordered_json::array();
  json["faults"] = nlohmann::ordered_json::array();
  for (const Field& field : piece.fields) {
    json["fields"].push_back({{"offset", field.offset},
                              {"size", field.size},
                              {"name", field.name},
                              {"value", field.value},
                              {"meaning", field.meaning}});
  }
  for (const Fault& fault : piece.faults) {
    json["faults"].push_back({{"offset", fault.offset}, {"rule", fault.rule}, {"text", fault.text}});
  }
  PrintJson(json);
}

void DecodeStream(const Stream& stream, const Options& options, Totals& totals) {
  const bool text = options.format == "text";
  if (text && !stream.name.empty()) Print(fmt::format("{}, {} bytes\n\n", stream.name, stream.bytes.size()));
  DecodeOptions how;
  how.datagram = stream.datagram;
  if (options.full) how.text_limit = kAllText;
  Decode(stream.bytes, how, [&](const Piece& piece) {
    if (piece.kind == PieceKind::kStray) {
      totals.stray_bytes += piece.size;
    } else {
      ++totals.messages;
    }
    totals.faults += piece.faults.size();
    text ? PrintText(piece, totals.messages) : PrintObject(piece, stream.name);
  });
}

// A capture holds other people's traffic too: a stream without a single message is named, not taken apart.
bool IsForeign(const Stream& stream) {
  if (stream.name.empty()) return false;
  bool found = false;
  DecodeOptions how;
  how.datagram = stream.datagram;
  how.text_limit = 0;
  Decode(stream.bytes, how, [&found](const Piece& piece) { found = found || piece.kind != PieceKind::kStray; });
  return !found;
}

ExitCode RunDecode(const Options& options) {
  const std::string file = ReadFile(options.file, kMaxFile);
  const Capture capture = ReadCapture(BytesOf(file), FormatOf(options.input));
  Totals totals;
  for (const Stream& stream : capture.streams) {
    if (IsForeign(stream)) {
      Note(fmt::format("{}: {} bytes without a message, left out", stream.name, stream.bytes.size()));
    } else {
      DecodeStream(stream, options, totals);
    }
  }
  Flush();
  for (const std::string& note : capture.notes) Note(note);
  for (const std::string& fault : capture.faults) Note(fmt::format("{}: {}", options.file, fault));
  if (options.format == "text") {
    Print(Count(totals.messages, "message") + ", " + Count(totals.stray_bytes, "stray byte") + ", " +
          Count(totals.faults, "fault") + "\n");
  }
  if (!capture.faults.empty()) return kExitInput;
  return totals.faults == 0 ? kExitOk : kExitBadMessage;
}

}  // namespace

void AddDecode(CLI::App& app, ExitCode& exit) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("decode", "Take a captured byte stream apart, field by field");
  command->add_option("FILE", options->file, "What was captured; - or nothing for standard input");
  command->add_option("--input", options->input, "raw, hex (xxd, hexdump -C, od), pcap, or auto")
      ->check(CLI::IsMember({"auto", "raw", "hex", "pcap"}))
      ->type_name("FORMAT");
  command->add_option("--format", options->format, "text, or json (one object a message)")
      ->check(CLI::IsMember({"text", "json"}))
      ->type_name("FORMAT");
  command->add_flag("--full", options->full, "Show long texts and byte strings whole");
  command->footer(
      "Shows offset, size, name, value and meaning of every field, in either byte order and character set, plain and "
      "signed. Signatures are shown, not checked. Ends with 6 when a rule of the wire format is broken.\n\n"
      "Examples:\n  mqcat decode stream.bin\n  xxd stream.bin | mqcat decode\n"
      "  tcpdump -i lo -w - port 5000 | mqcat decode --input pcap");
  command->callback([options, &exit] { exit = RunDecode(*options); });
}

}  // namespace mqcat
