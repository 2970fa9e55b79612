// decode_command.cc - mqcat decode: prints the messages (decode.hh) in the streams of an input (capture.hh).
#include <cstring>
#include <memory>

#include "capture.hh"
#include "decode.hh"
#include "input.hh"
#include "link.hh"
#include "options.hh"
#include "output.hh"
#include "signals.hh"

namespace mqcat {
namespace {

constexpr uint64_t kMostPackets = 1000000;
constexpr size_t kSomeText = 64;  // characters of a text, bytes of a byte string, that are shown
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
  std::string key;
  std::string user;
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
    case PieceKind::kSigned:
      return "signed message";
    case PieceKind::kSealed:
      return "sealed message";
    default:
      return "stray bytes";
  }
}

void AppendKey(std::string& out, std::string_view key, uint64_t number) {
  const fmt::format_int digits(number);
  out.append(key).append(digits.data(), digits.size());
}

void AppendKey(std::string& out, std::string_view key, std::string_view text) {
  out += key;
  AppendJsonString(out, text);
}

std::string_view TextOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// The beginning of a line, composed in place: a stream of 64 MiB has millions of lines.
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
  // Right-aligned in width columns.
  void PutNumber(uint64_t number, size_t width = 0) {
    const fmt::format_int digits(number);
    PutBlanks(width - std::min(width, digits.size()));
    Put({digits.data(), digits.size()});
  }
  // "parameter 3 length", left-aligned in width columns. Names are constant and short.
  void PutName(const Field& field, size_t width) {
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

// ---- Text ----

// The output's properties, determined once.
struct Page {
  size_t width = OutputWidth();
  bool is_terminal = OutputIsTerminal();
};

void AppendNumber(std::string& out, const Field& field) {
  const fmt::format_int digits = field.kind == ValueKind::kSigned ? fmt::format_int(static_cast<int64_t>(field.number))
                                                                  : fmt::format_int(field.number);
  out.append(digits.data(), digits.size());
}

std::string Shown(const Field& field, size_t limit) {
  switch (field.kind) {
    case ValueKind::kText:
      return Quote(TextOf(field.bytes), limit);
    case ValueKind::kEbcdic:
      if (const auto text = FromEbcdic(TextOf(field.bytes))) return Quote(*text, limit);
      return Hex(field.bytes, limit);
    case ValueKind::kReserved:
      if (std::all_of(field.bytes.begin(), field.bytes.end(), [](uint8_t b) { return b == 0; })) return "0";
      return Hex(field.bytes);
    default:
      return Hex(field.bytes, limit, field.size);
  }
}

// In columns, or on a narrow page one item after the other.
void AppendField(std::string& out, const Field& field, bool columns, size_t limit) {
  Start start;
  start.Put("  ");
  start.PutNumber(field.offset, columns ? 6 : 0);
  start.Put(" ");
  start.PutNumber(field.size, columns ? 4 : 0);
  start.Put("  ");
  start.PutName(field, columns ? 20 : 0);
  start.Put(" ");
  out.append(start.text());
  field.is_number() ? AppendNumber(out, field) : void(out += Shown(field, limit));
  if (!field.meaning.empty()) out.append(columns ? "  " : "\n    ").append(field.meaning).append(field.detail);
  out += '\n';
}

std::string Headline(const Piece& piece, uint64_t number) {
  const std::string where = fmt::format("at byte {}, {} bytes", piece.offset, piece.size);
  if (piece.kind == PieceKind::kStray) return fmt::format("{} {}\n", KindName(piece.kind), where);
  return fmt::format("message {}: {} {}, {}-endian, {}\n", number, KindName(piece.kind), where,
                     piece.big_endian ? "big" : "little", piece.ebcdic ? "EBCDIC" : "ASCII");
}

void AppendText(std::string& out, const Piece& piece, uint64_t number, const Page& page, size_t limit) {
  out += Wrap(Headline(piece, number), page.width);
  const size_t begin = out.size();
  for (const Field& field : piece.fields) AppendField(out, field, page.width >= kNarrow, limit);
  if (page.is_terminal) out.replace(begin, std::string::npos, Wrap(out.substr(begin), page.width));
  std::string faults;
  for (const Fault& fault : piece.faults) {
    AppendKey(faults, "  FAULT at byte ", fault.offset);
    faults.append(": ").append(fault.rule).append(": ").append(fault.text) += '\n';
  }
  out += Wrap(faults, page.width) + "\n";
}

// ---- JSON ----

// "value" is always present; "hex" has the bytes of a text that is not UTF-8; "truncated" says that both are only the
// beginning.
void AppendJsonValue(std::string& out, const Field& field, size_t limit) {
  out += "\"value\":";
  if (field.is_number()) return AppendNumber(out, field);
  if (field.kind == ValueKind::kBytes || field.kind == ValueKind::kReserved) {
    const size_t shown = std::min(field.bytes.size(), limit);
    out.append("\"").append(Hex(field.bytes.first(shown))).append("\"");
    if (shown < field.size) out += ",\"truncated\":true";
    return;
  }
  const auto converted = field.kind == ValueKind::kEbcdic ? FromEbcdic(TextOf(field.bytes)) : std::nullopt;
  const std::string_view text = converted ? *converted : TextOf(field.bytes);
  const size_t taken = AppendJsonString(out, text, limit);
  if (!IsUtf8(text.substr(0, taken))) AppendKey(out, ",\"hex\":", Hex(BytesOf(text.substr(0, taken))));
  if (taken < text.size()) out += ",\"truncated\":true";
}

void AppendJson(std::string& out, const Field& field, size_t limit) {
  Start start;
  start.Put("{\"offset\":");
  start.PutNumber(field.offset);
  start.Put(",\"size\":");
  start.PutNumber(field.size);
  if (field.parameter >= 0) {
    start.Put(",\"parameter\":");
    start.PutNumber(static_cast<uint64_t>(field.parameter));
  }
  start.Put(",\"name\":\"");
  start.Put(field.name);
  start.Put("\",");
  out += start.text();
  AppendJsonValue(out, field, limit);
  out.append(",\"meaning\":\"").append(field.meaning).append(field.detail).append("\"},", 3);
}

void AppendJson(std::string& out, const Fault& fault) {
  AppendKey(out, "{\"offset\":", fault.offset);
  out.append(",\"rule\":\"").append(fault.rule);
  AppendKey(out, "\",\"text\":", fault.text);
  out.append("},", 2);
}

// Ends a list whose elements are each followed by a comma.
void EndList(std::string& out) {
  if (out.back() == ',') out.pop_back();
  out += ']';
}

void AppendJson(std::string& out, const Piece& piece, const std::string& stream, size_t limit) {
  AppendKey(out, "{\"kind\":", KindName(piece.kind));
  AppendKey(out, ",\"offset\":", piece.offset);
  AppendKey(out, ",\"size\":", piece.size);
  if (!stream.empty()) AppendKey(out, ",\"stream\":", stream);
  if (piece.kind != PieceKind::kStray) {
    AppendKey(out, ",\"byteOrder\":", piece.big_endian ? "big" : "little");
    AppendKey(out, ",\"charset\":", piece.ebcdic ? "EBCDIC" : "ASCII");
  }
  out += ",\"fields\":[";
  for (const Field& field : piece.fields) AppendJson(out, field, limit);
  EndList(out);
  out += ",\"faults\":[";
  for (const Fault& fault : piece.faults) AppendJson(out, fault);
  EndList(out);
  out += "}\n";
}

// ---- The run ----

// Opens with the secret key of user, or the only one, in a file; an empty path opens nothing.
MessageOpener OpenerFrom(const std::string& path, const std::string& user) {
  if (path.empty()) return {};
  const std::shared_ptr<MqcSigner> key = LoadSigner(path, user);
  return {mqc_signer_user(key.get()), [key](std::span<uint8_t> message) {
            char error[512];
            mqc_open_captured(key.get(), message.data(), static_cast<uint32_t>(message.size()), error, sizeof error);
            return std::string(error);
          }};
}

// Notes for the end of the run: the first ones, and how many more there are.
class Notes {
 public:
  explicit Notes(std::string what) : what_(std::move(what)) {}
  void Add(std::string text) {
    if (++count_ <= kMostNotes) texts_.push_back(std::move(text));
  }
  void Print() const {
    for (const std::string& text : texts_) Note(text);
    if (count_ > kMostNotes) Note(fmt::format("and {} more {}", count_ - kMostNotes, what_));
  }
  bool empty() const { return count_ == 0; }

 private:
  static constexpr uint64_t kMostNotes = 100;
  std::string what_;
  std::vector<std::string> texts_;
  uint64_t count_ = 0;
};

struct Counts {
  uint64_t messages = 0, stray_bytes = 0, faults = 0;

  void Add(const Piece& piece) {
    if (piece.kind == PieceKind::kStray) {
      stray_bytes += piece.size;
    } else {
      ++messages;
    }
    faults += piece.faults.size();
  }
};

// Prints the pieces of all streams as they arrive, and counts them.
class Report final : public Receiver {
 public:
  explicit Report(const Options& options)
      : options_(options),
        limit_(options.full ? kAllText : kSomeText),
        opener_(OpenerFrom(options.key, options.user)) {}

  std::unique_ptr<Stream> Begin(std::string name) override;
  void Datagram(const std::string& name, Bytes bytes) override;
  void Fault(std::string text) override { faults_.Add(fmt::format("{}: {}", source(), text)); }
  void Note(std::string text) override { notes_.Add(std::move(text)); }

  size_t limit() const { return limit_; }
  const MessageOpener& opener() const { return opener_; }
  void Add(const Piece& piece, const std::string& stream);
  void LeaveOut(const std::string& stream, uint64_t bytes) {
    foreign_.Add(fmt::format("{}: {} bytes without a message, left out", stream, bytes));
  }
  // Prints notes and summary. Returns the exit code.
  ExitCode Finish();

 private:
  const std::string& source() const { return options_.interface.empty() ? options_.file : options_.interface; }
  bool is_text() const { return options_.format == "text"; }

  const Options& options_;
  const size_t limit_;
  const MessageOpener opener_;
  const Page page_;
  Counts counts_;
  std::string shown_stream_;  // of the piece that was printed last
  std::string text_;          // keeps its memory
  Notes foreign_{"without a message, left out"}, notes_{"notes"}, faults_{"faults of the capture"};
};

// One stream of a report. A capture contains the traffic of other programs, too: of a named stream nothing is shown
// before its first message; without one its name and size are noted at the end.
class StreamReport final : public Stream {
 public:
  StreamReport(Report& report, std::string name)
      : report_(report),
        name_(std::move(name)),
        is_ours_(name_.empty()),
        decoder_([this](const Piece& piece) { Add(piece); }, report.limit(), report.opener()) {}

  void Take(Bytes bytes) override { decoder_.Take(bytes); }
  void End() override {
    decoder_.Finish();
    if (!is_ours_) report_.LeaveOut(name_, decoder_.size());
  }
  size_t held() const override { return decoder_.held(); }

 private:
  void Add(const Piece& piece) {
    if (!is_ours_ && piece.kind == PieceKind::kStray) {
      HoldBack(piece);
      return;
    }
    is_ours_ = true;
    if (stray_.size != 0) report_.Add(stray_, name_);
    stray_.size = 0;
    report_.Add(piece, name_);
  }

  void HoldBack(const Piece& piece) {
    stray_ = piece;
    const Bytes shown = piece.fields.front().bytes;
    stray_bytes_.assign(shown.begin(), shown.end());
    stray_.fields.front().bytes = stray_bytes_;
  }

  Report& report_;
  const std::string name_;
  bool is_ours_;      // it has a message, or is the whole input
  Piece stray_ = {};  // the stray bytes before the first message
  std::vector<uint8_t> stray_bytes_;
  Decoder decoder_;
};

std::unique_ptr<Stream> Report::Begin(std::string name) {
  return std::make_unique<StreamReport>(*this, std::move(name));
}

void Report::Datagram(const std::string& name, Bytes bytes) {
  const auto add = [&](const Piece& piece) {
    piece.kind == PieceKind::kStray ? LeaveOut(name, bytes.size()) : Add(piece, name);
  };
  DecodeDatagram(bytes, add, opener_);
}

void Report::Add(const Piece& piece, const std::string& stream) {
  counts_.Add(piece);
  text_.clear();
  if (is_text() && stream != shown_stream_) text_.append(stream).append("\n\n");
  if (stream != shown_stream_) shown_stream_ = stream;
  is_text() ? AppendText(text_, piece, counts_.messages, page_, limit_) : AppendJson(text_, piece, stream, limit_);
  Print(text_);
}

ExitCode Report::Finish() {
  Flush();
  for (const Notes* some : {&foreign_, &notes_, &faults_}) some->Print();
  if (is_text()) {
    Print(Count(counts_.messages, "message") + ", " + Count(counts_.stray_bytes, "stray byte") + ", " +
          Count(counts_.faults, "fault") + "\n");
  }
  if (Interrupted() && options_.interface.empty()) return kExitInterrupted;
  if (!faults_.empty()) return kExitInput;
  return counts_.faults == 0 ? kExitOk : kExitBadMessage;
}

void ReadInput(const Options& options, Report& report) {
  Input input(options.file);
  if (input.is_terminal()) {
    Note("reading from the terminal: paste a hexadecimal dump and press Ctrl-D, or name a file (mqcat decode --help)");
  }
  ReadCapture([&input] { return input.Next(); }, FormatOf(options.input), report);
}

ExitCode RunDecode(const Options& options) {
  CatchSignals();
  Report report(options);
  if (options.interface.empty()) {
    ReadInput(options, report);
  } else {
    CaptureInterface(options.interface, options.filter, options.count, Flush, report);
  }
  return report.Finish();
}

}  // namespace

void AddDecode(CLI::App& app, ExitCode& exit) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("decode", "Show captured messages field by field");
  CLI::Option* const file =
      command->add_option("FILE", options->file, "Captured bytes or packets; - or no FILE reads standard input");
  CLI::Option* const input =
      command
          ->add_option("--input", options->input,
                       "Form of the input: raw, hex (xxd, hexdump -C, od), pcap (also pcapng), auto")
          ->check(CLI::IsMember({"auto", "raw", "hex", "pcap"}))
          ->type_name("FORMAT")
          ->capture_default_str();
  CLI::Option* const interface =
      command->add_option("--interface", options->interface, "Capture packets from this network interface instead")
          ->type_name("INTERFACE")
          ->excludes(file)
          ->excludes(input);
  command->add_option("--filter", options->filter, "Packets to capture, such as \"port 5000\" (see pcap-filter(7))")
      ->type_name("EXPRESSION")
      ->needs(interface);
  AddNumber(*command, "--count", options->count, uint64_t{1}, kMostPackets,
            "Stop after this many packets; Ctrl-C stops earlier (10000)")
      ->needs(interface);
  command->add_option("--format", options->format, "text, or json (one object per message)")
      ->check(CLI::IsMember({"text", "json"}))
      ->type_name("FORMAT")
      ->capture_default_str();
  CLI::Option* const key =
      AddKeyFile(*command, "--key", options->key, "Open messages that are sealed for the user of this secret key");
  AddUser(*command, options->user, "User whose key --key takes from the file")->needs(key);
  command->add_flag("--full", options->full, "Show long texts and byte strings in full");
  command->footer(
      "Shows offset, size, name, value and meaning of every field, in either byte order and character set, as soon as "
      "a message is complete. Signatures are shown, but not verified; a sealed message remains encrypted without its "
      "key. The exit code is 6 if a message violates the wire format. Ctrl-C ends decode with the summary; the exit "
      "code is then 130, or with --interface that of the messages.\n\n"
      "Examples:\n  mqcat decode stream.bin\n  xxd stream.bin | mqcat decode\n"
      "  mqcat decode talk.pcapng\n  tcpdump -i lo -U -w - port 5000 | mqcat decode\n"
      "  mqcat decode --interface lo --filter 'port 5000' --count 20");
  command->callback([options, &exit] { exit = RunDecode(*options); });
}

}  // namespace mqcat
