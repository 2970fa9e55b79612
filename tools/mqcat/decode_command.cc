// decode_command.cc - mqcat decode: shows what decode.hh finds in the streams that capture.hh finds.
#include <cstring>
#include <memory>

#include "capture.hh"
#include "decode.hh"
#include "input.hh"
#include "options.hh"
#include "output.hh"
#include "signals.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxFile = 1u << 30;
constexpr uint64_t kMostPackets = 1000000;
constexpr size_t kAllText = 1u << 30;
constexpr size_t kNarrow = 76;  // columns below which a meaning gets a line of its own

struct Options {
  std::string file = "-";
  std::string input = "auto";
  std::string interface;
  std::string filter;
  uint64_t count = 10000;
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

// Where output goes, asked once.
struct Page {
  size_t width = OutputWidth();
  bool is_terminal = OutputIsTerminal();
};

void AppendKey(std::string& out, std::string_view key, uint64_t number) {
  const fmt::format_int digits(number);
  out.append(key).append(digits.data(), digits.size());
}

void AppendKey(std::string& out, std::string_view key, std::string_view text) {
  out += key;
  AppendJsonString(out, text);
}

// The short beginning of a line, composed in place: a stream of 64 MiB has millions of lines.
class Start {
 public:
  void Put(std::string_view text) {
    memcpy(end_, text.data(), text.size());
    end_ += text.size();
  }
  void PutBlanks(size_t count) {
    memset(end_, ' ', count);
    end_ += count;
  }
  // Behind blanks up to a width.
  void PutNumber(uint64_t number, size_t width = 0) {
    const fmt::format_int digits(number);
    PutBlanks(width - std::min(width, digits.size()));
    Put({digits.data(), digits.size()});
  }
  // "parameter 3 length", with blanks up to a width. Names are constant and short.
  void PutName(const Field& field, size_t width = 0) {
    const char* const begin = end_;
    if (field.parameter >= 0) {
      Put("parameter ");
      PutNumber(static_cast<uint64_t>(field.parameter));
      Put(" ");
    }
    Put(field.name);
    PutBlanks(width - std::min(width, static_cast<size_t>(end_ - begin)));
  }
  std::string_view text() const { return {place_, end_}; }

 private:
  char place_[192];
  char* end_ = place_;
};

// In columns, or what is narrow one behind the other.
void AppendField(std::string& out, const Field& field, bool columns) {
  Start start;
  start.Put("  ");
  start.PutNumber(field.offset, columns ? 6 : 0);
  start.Put(" ");
  start.PutNumber(field.size, columns ? 4 : 0);
  start.Put("  ");
  start.PutName(field, columns ? 20 : 0);
  start.Put(" ");
  out.append(start.text()).append(field.value);
  if (!field.meaning.empty()) out.append(columns ? "  " : "\n    ").append(field.meaning).append(field.detail);
  out += '\n';
}

void PrintText(const Piece& piece, uint64_t number, const Page& page, std::string& lines) {
  Print(Wrap(Headline(piece, number), page.width));
  lines.clear();
  for (const Field& field : piece.fields) AppendField(lines, field, page.width >= kNarrow);
  Print(page.is_terminal ? Wrap(lines, page.width) : lines);
  lines.clear();
  for (const Fault& fault : piece.faults) {
    AppendKey(lines, "  FAULT at byte ", fault.offset);
    lines.append(": ").append(fault.rule).append(": ").append(fault.text) += '\n';
  }
  Print(Wrap(lines, page.width));
  Print("\n");
}

void AppendFieldJson(std::string& out, const Field& field) {
  Start start;
  start.Put("{\"offset\":");
  start.PutNumber(field.offset);
  start.Put(",\"size\":");
  start.PutNumber(field.size);
  start.Put(",\"name\":\"");
  start.PutName(field);
  start.Put("\",\"value\":");
  AppendKey(out, start.text(), field.value);
  Start meaning;
  meaning.Put(",\"meaning\":\"");
  meaning.Put(field.meaning);
  out.append(meaning.text()).append(field.detail).append("\"},", 3);
}

void AppendFaultJson(std::string& out, const Fault& fault) {
  AppendKey(out, "{\"offset\":", fault.offset);
  out.append(",\"rule\":\"").append(fault.rule);
  AppendKey(out, "\",\"text\":", fault.text);
  out.append("},", 2);
}

// Ends a list whose elements each have a comma behind them.
void EndList(std::string& out) {
  if (out.back() == ',') out.pop_back();
  out += ']';
}

void PrintObject(const Piece& piece, const std::string& stream, std::string& out) {
  out.clear();
  AppendKey(out, "{\"kind\":", KindName(piece.kind));
  AppendKey(out, ",\"offset\":", piece.offset);
  AppendKey(out, ",\"size\":", piece.size);
  if (!stream.empty()) AppendKey(out, ",\"stream\":", stream);
  if (piece.kind != PieceKind::kStray) {
    AppendKey(out, ",\"byteOrder\":", piece.big_endian ? "big" : "little");
    AppendKey(out, ",\"charset\":", piece.ebcdic ? "EBCDIC" : "ASCII");
  }
  out += ",\"fields\":[";
  for (const Field& field : piece.fields) AppendFieldJson(out, field);
  EndList(out);
  out += ",\"faults\":[";
  for (const Fault& fault : piece.faults) AppendFaultJson(out, fault);
  EndList(out);
  Print(out += "}\n");
}

void DecodeStream(const Stream& stream, const Options& options, Totals& totals) {
  const bool text = options.format == "text";
  if (text && !stream.name.empty()) Print(fmt::format("{}, {} bytes\n\n", stream.name, stream.bytes.size()));
  DecodeOptions how;
  how.datagram = stream.datagram;
  const Page page;
  std::string text_of_piece;  // keeps its memory
  if (options.full) how.text_limit = kAllText;
  Decode(stream.bytes, how, [&](const Piece& piece) {
    if (piece.kind == PieceKind::kStray) {
      totals.stray_bytes += piece.size;
    } else {
      ++totals.messages;
    }
    totals.faults += piece.faults.size();
    text ? PrintText(piece, totals.messages, page, text_of_piece) : PrintObject(piece, stream.name, text_of_piece);
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

// The first of many notes, and how many more there are.
class Notes {
 public:
  explicit Notes(std::string what) : what_(std::move(what)) {}
  void Add(std::string_view text) {
    if (++count_ <= kMostNotes) Note(text);
  }
  void Finish() const {
    if (count_ > kMostNotes) Note(fmt::format("and {} more {}", count_ - kMostNotes, what_));
  }

 private:
  static constexpr uint64_t kMostNotes = 100;
  std::string what_;
  uint64_t count_ = 0;
};

Capture Read(const Options& options) {
  if (options.interface.empty()) {
    const std::string file = ReadFile(options.file, kMaxFile);
    return ReadCapture(BytesOf(file), FormatOf(options.input));
  }
  CatchSignals();
  return CaptureInterface(options.interface, options.filter, options.count);
}

ExitCode RunDecode(const Options& options) {
  const Capture capture = Read(options);
  const std::string& source = options.interface.empty() ? options.file : options.interface;
  Totals totals;
  Notes foreign("without a message, left out"), notes("notes"), faults("faults of the capture");
  for (const Stream& stream : capture.streams) {
    if (IsForeign(stream)) {
      foreign.Add(fmt::format("{}: {} bytes without a message, left out", stream.name, stream.bytes.size()));
    } else {
      DecodeStream(stream, options, totals);
    }
  }
  Flush();
  for (const std::string& note : capture.notes) notes.Add(note);
  for (const std::string& fault : capture.faults) faults.Add(fmt::format("{}: {}", source, fault));
  for (const Notes* some : {&foreign, &notes, &faults}) some->Finish();
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
  CLI::Option* const file =
      command->add_option("FILE", options->file, "What was captured; - or nothing for standard input");
  CLI::Option* const input =
      command->add_option("--input", options->input, "raw, hex (xxd, hexdump -C, od), pcap (and pcapng), or auto")
          ->check(CLI::IsMember({"auto", "raw", "hex", "pcap"}))
          ->type_name("FORMAT");
  CLI::Option* const interface =
      command->add_option("--interface", options->interface, "Capture packets from this network interface instead")
          ->type_name("NAME")
          ->excludes(file)
          ->excludes(input);
  command->add_option("--filter", options->filter, "Packets to capture, such as \"port 5000\" (see pcap-filter(7))")
      ->type_name("EXPRESSION")
      ->needs(interface);
  AddNumber(*command, "--count", options->count, uint64_t{1}, kMostPackets,
            "Packets to capture; SIGINT ends it earlier")
      ->needs(interface);
  command->add_option("--format", options->format, "text, or json (one object a message)")
      ->check(CLI::IsMember({"text", "json"}))
      ->type_name("FORMAT");
  command->add_flag("--full", options->full, "Show long texts and byte strings whole");
  command->footer(
      "Shows offset, size, name, value and meaning of every field, in either byte order and character set, plain and "
      "signed. Signatures are shown, not checked. Ends with 6 when a rule of the wire format is broken.\n\n"
      "Examples:\n  mqcat decode stream.bin\n  xxd stream.bin | mqcat decode\n"
      "  mqcat decode talk.pcapng\n"
      "  mqcat decode --interface lo --filter 'port 5000' --count 20");
  command->callback([options, &exit] { exit = RunDecode(*options); });
}

}  // namespace mqcat
