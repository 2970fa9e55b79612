// packets.hh - joins captured frames into streams: IPv4 over Ethernet, Linux cooked, raw and null links; fragments
// joined, TCP segments in order, UDP. Trusts nothing; memory is bounded.
#pragma once

#include <functional>
#include <optional>

#include "capture.hh"

namespace mqcat {

// Whether frames of a link type, a DLT_ number of libpcap, can be read.
bool IsKnownLink(int link);

// next returns the next frame, valid until the next call; nothing at the end.
void AssembleStreams(int link, const std::function<std::optional<Bytes>()>& next, Receiver& receiver);

}  // namespace mqcat
