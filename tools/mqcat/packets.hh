// packets.hh - puts the frames of a capture together to streams: IPv4 over Ethernet, Linux cooked, raw and null links;
// fragments joined, TCP in order, UDP. Trusts nothing; memory grows with the number of bytes only.
#pragma once

#include <functional>
#include <optional>

#include "capture.hh"

namespace mqcat {

// Whether frames of a link type, a DLT_ number of libpcap, can be read.
bool IsKnownLink(int link);

// next gives frame after frame, nothing at the end; a frame is valid until the next call.
Capture AssembleStreams(int link, const std::function<std::optional<Bytes>()>& next);

}  // namespace mqcat
