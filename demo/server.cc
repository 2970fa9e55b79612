#include "demo/server.hh"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>

#include "demo/service.hh"

namespace demo {
namespace {

using namespace std::chrono_literals;

constexpr double kScanSeconds = 0.1;

volatile sig_atomic_t stopped;

struct Row {
  const char* name;
  MakeEngine* make;
};
constexpr Row kEngines[] = {
    {"node", MakeNodeEngine},
#ifdef MQDEMO_UV
    {"uv", MakeUvEngine},
#endif
#ifdef MQDEMO_ASIO
    {"asio", MakeAsioEngine},
#endif
};

bool Open(Service* service, Engine* engine) {
  for (const Port port : {kPlain, kSigned, kDatagram, kSignedDatagram}) {
    if (const auto added = engine->Add(service->MakeNode(port), port); !added) return service->Fail(added.name());
  }
  return true;
}

bool Serve(Service* service, Engine* engine, Shared* shared) {
  shared->ready = true;
  for (double scanned = 0; !stopped; ++shared->server.waits) {
    if (const auto waited = engine->Round(50ms); !waited) return service->Fail(waited.name());
    if (const double now = Now(); now - scanned >= kScanSeconds) service->Scan(scanned = now);
  }
  return true;
}

}  // namespace

std::vector<std::string> Engines() {
  std::vector<std::string> names;
  for (const Row& row : kEngines) names.emplace_back(row.name);
  return names;
}

int RunServer(Shared* shared, uint64_t seed, const Keys& keys, const Limits& limits, const std::string& engine) {
  signal(SIGTERM, [](int) { stopped = 1; });
  Service service(shared, seed, keys, limits.answers);
  bool ok = false;
  {
    const auto running = std::ranges::find(kEngines, engine, &Row::name)->make(&service, limits);
    ok = Open(&service, running.get()) && Serve(&service, running.get(), shared);
    running->End();
  }
  service.Close();
  return ok ? 0 : 1;
}

}  // namespace demo
