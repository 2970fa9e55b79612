// contestants.cc - the lists of contestants.
#include "bench/echo.hh"
#include "bench/end.hh"

namespace bench {

std::vector<Contestant> Contestants() { return {Nodes(), BareSockets()}; }

std::vector<Contestant> OtherContestants() {
  std::vector<Contestant> others;
#ifdef MQBENCH_ZMQ
  others.push_back(Zmq());
#endif
#ifdef MQBENCH_NNG
  others.push_back(Nng());
#endif
  if (others.empty()) return others;
  others.insert(others.begin(), Nodes());
  others.push_back(BareSockets());
  return others;
}

std::vector<std::vector<EchoServer>> EchoServers() {
  std::vector<std::vector<EchoServer>> groups;
#ifdef MQBENCH_UV
  groups.push_back({EchoNodesUv(), EchoBareUv()});
#endif
#ifdef MQBENCH_ASIO
  groups.push_back({EchoNodesAsio(), EchoBareAsio()});
#endif
  groups.push_back({EchoNodesWait()});
#ifdef MQBENCH_ZMQ
  groups.push_back({EchoZmq()});
#endif
#ifdef MQBENCH_NNG
  groups.push_back({EchoNng()});
#endif
  return groups;
}

std::vector<uint8_t> SomeBytes(size_t size) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
  return bytes;
}

}  // namespace bench
