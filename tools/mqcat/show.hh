// show.hh - prints received messages.
#pragma once

#include <string>

#include "companion/host.h"

namespace mqcat {

enum class ShowFormat { kText, kJson, kHex, kRaw, kQuiet };

inline constexpr const char* kShowFormats[] = {"text", "json", "hex", "raw", "quiet"};
ShowFormat ShowFormatOf(const std::string& name);

// Prints a message from a peer, "127.0.0.1:5000". is_signed: the sender is the user whose key signed it. Raw is header
// and body as the library delivers them: in this host's byte order and character set, without envelope and trailer.
void ShowMessage(const PcfMessage* msg, const std::string& peer, bool is_signed, ShowFormat format);

// "2026-01-31 12:00:00.000", local time, or UTC with a T and a Z.
std::string LocalTime();
std::string UtcTime();

}  // namespace mqcat
