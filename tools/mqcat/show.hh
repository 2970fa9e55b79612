// show.hh - how a message that was received is printed.
#pragma once

#include <string>

#include "companion/host.h"

namespace mqcat {

enum class ShowFormat { kText, kJson, kHex, kRaw, kQuiet };

inline constexpr const char* kShowFormats[] = {"text", "json", "hex", "raw", "quiet"};
ShowFormat ShowFormatOf(const std::string& name);

// Prints a message from a peer, "127.0.0.1:5000". Signed: the sender is the user whose key signed. Raw is the message
// as the library delivers it: header and body in this host's form, without envelope and trailer.
void ShowMessage(const PcfMessage* msg, const std::string& peer, bool is_signed, ShowFormat format);

// "2026-01-31 12:00:00.000", local time, or UTC with a T and a Z.
std::string LocalTime();
std::string UtcTime();

}  // namespace mqcat
