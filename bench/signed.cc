// signed.cc - the cost of signatures: in whole round trips, and of mqc_sign and mqc_authenticate alone.
#include <fmt/format.h>

#include "bench/exchange.hh"
#include "bench/node_end.hh"
#include "bench/peer.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr size_t kSignedBodies[] = {64, 1024, 64 * 1024};
constexpr double kMicro = 1e6;

struct Cost {
  double sign;  // seconds
  double authenticate;
};

// One message at a time, so that buffers are reused at once, as in a round trip.
Cost MeasureSignature(size_t body, size_t messages) {
  PcfMessage* const msg = MessageToSign(body);
  PcfMessage* const received = NewMessage(body);
  std::vector<double> sign;
  std::vector<double> authenticate;
  for (size_t i = 0; i < messages; ++i) {
    IoBuffer sent = {};
    const double start = Seconds();
    Check(mqc_sign(SharedSigner(), msg, &sent), "mqc_sign");
    sign.push_back(Seconds() - start);
    IoBuffer part = Receive(sent, received);
    const double begun = Seconds();
    Check(mqc_authenticate(&received->secHeader, &part, received), "mqc_authenticate");
    authenticate.push_back(Seconds() - begun);
    DeleteBuffer(&sent);
  }
  mqc_message_free(msg);
  mqc_message_free(received);
  return {Median(sign), Median(authenticate)};
}

}  // namespace

void MeasureSigned(Report* report, const Settings& settings, const std::string& placement) {
  ShareKeys();
  Section section = {
      fmt::format("signed_{}", placement),
      fmt::format("Signed round trip, {}: compared with a plain one, and the share of the signatures", placement),
      {"body", "signed us", "plain us", "signed/plain", "+-", "sign us", "authenticate us", "share"},
      {},
      {"share: part of the time of a signed round trip that two signatures and two checks take"}};
  for (const size_t body : kSignedBodies) {
    Duel duel({SignedNodes(), Nodes()}, Pattern::kRoundTrip, body, 0);
    // The signed contestant determines the count, to limit the messages that a receiver has to remember.
    const size_t count = CountFor(settings.exchange.slice, [&](size_t n) { return duel.Run(0, n).elapsed; });
    const Samples samples = Interleave(duel.size(), settings.exchange.rounds * kLayouts, [&](size_t c) {
      return duel.Run(c, count).elapsed / static_cast<double>(count);
    });
    const Ratio ratio = RatioOfMedians(samples[0], samples[1]);
    const Cost cost = MeasureSignature(body, 4 * settings.exchange.rounds * kLayouts);
    const double whole = Median(samples[0]);
    section.rows.push_back({Text(body < 1024 ? fmt::format("{} B", body) : fmt::format("{} KiB", body / 1024)),
                            Number(whole * kMicro, 2), Number(Median(samples[1]) * kMicro, 2), Number(ratio.value, 2),
                            Number(ratio.Spread(), 2), Number(cost.sign * kMicro, 2),
                            Number(cost.authenticate * kMicro, 2),
                            Number(2 * (cost.sign + cost.authenticate) / whole, 3)});
  }
  report->Add(std::move(section));
}

}  // namespace bench
