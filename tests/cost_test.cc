// cost_test.cc - what a message costs, through the C++ interface, which adds nothing: system calls and allocations,
// counted.
#include "tests/support/nodes.hh"

namespace {

// The system calls of one operation, then allocations of the companion and of the library itself.
template <class Run>
std::string Cost(Run run) {
  Take();
  const uint64_t companion = mqc_allocations();
  const size_t library = Platform::Allocations();
  EXPECT_TRUE(run());
  return format("{} | {} {}", Take("c"), mqc_allocations() - companion, Platform::Allocations() - library);
}

using CostTest = NodeTest;

// One send a message; two receives a read, which allocates nothing once buffer and record have grown, but for the
// memory of a signed message that was accepted. A write makes its descriptor and its data area.
TEST_F(CostTest, Messages) {
  const Keys keys;
  Link link = Connect();  // two nodes over one connection
  const Node reader(Node::adopt(link.peer.Release(), MQ_ROLE_CONNECT).release());
  const Message in;
  for (const auto& [secure, size] : {std::pair{0, 44u}, {0, 16364u}, {0, 65516u}, {1, 1004u}}) {
    const Message out(1, size);
    const uint32_t total = size + (secure ? 284 : 156), header = secure ? kEnvelope : kHeader;
    std::string write, read;
    for (int grown = 0; grown < 2; ++grown) {
      const Node& writer = link.node;
      write = Cost([&, is = secure] { return is ? writer.write_signed(out, keys.signer) : writer.write(out); });
      // All of it has to be there for one receive to bring it.
      std::string peeked(total, '\0');
      ASSERT_EQ(recv(reader->sock.fd, peeked.data(), total, MSG_PEEK | MSG_WAITALL), total);
      read = Cost([&, is = secure] { return is ? reader.read_signed(in) : reader.read(in); });
    }
    EXPECT_EQ(write, format("send({0}) = {0} | 2 0", total));
    EXPECT_EQ(read, format("recvfrom({0}) = {0}; recvfrom({1}) = {1} | {2} 0", header, total - header, secure));
  }
}

}  // namespace
