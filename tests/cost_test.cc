// cost_test.cc - what a message and a wait cost, through the C++ interface, which adds nothing: system calls and
// allocations, counted.
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

class CostTest : public NodeTest {
 protected:
  // Two nodes over one connection.
  CostTest() : link_(Connect()), reader_(Node::adopt(link_.peer.Release(), MQ_ROLE_CONNECT).release()) {
    reader_->sock.connected = 1;  // else a wait would watch it for writing
  }

  Link link_;
  Node reader_;
  const Message in_;
};

// One send a message; two receives a read, which allocates nothing once buffer and record have grown, but for the
// memory of a signed message that was accepted. A write makes its descriptor and its data area.
TEST_F(CostTest, Messages) {
  const Keys keys;
  for (const auto& [secure, size] : {std::pair{0, 44u}, {0, 16364u}, {0, 65516u}, {1, 1004u}}) {
    const Message out(1, size);
    const uint32_t total = size + (secure ? 284 : 156), header = secure ? kEnvelope : kHeader;
    std::string write, read;
    for (int grown = 0; grown < 2; ++grown) {
      const Node& node = link_.node;
      write = Cost([&, is = secure] { return is ? node.write_signed(out, keys.signer) : node.write(out); });
      // All of it has to be there for one receive to bring it.
      std::string peeked(total, '\0');
      ASSERT_EQ(recv(reader_->sock.fd, peeked.data(), total, MSG_PEEK | MSG_WAITALL), total);
      read = Cost([&, is = secure] { return is ? reader_.read_signed(in_) : reader_.read(in_); });
    }
    EXPECT_EQ(write, format("send({0}) = {0} | 2 0", total));
    EXPECT_EQ(read, format("recvfrom({0}) = {0}; recvfrom({1}) = {1} | {2} 0", header, total - header, secure));
  }
}

// Behind a queue a write costs an entry and no system call; finishing costs one send a message.
TEST_F(CostTest, QueuedWrites) {
  const Message out(1, 1004);
  Platform::Fail("send", 1, EAGAIN);
  EXPECT_EQ(Cost([&] { return link_.node.write(out); }), "send(1160) = -1 EAGAIN | 4 0");
  EXPECT_EQ(Cost([&] { return link_.node.write(out); }), " | 3 0");
  EXPECT_EQ(Cost([&] { return link_.node.finish_write(); }), "send(1160) = 1160; send(1160) = 1160 | 0 0");
}

TEST_F(CostTest, Waits) {
  SockPostData work;
  ASSERT_EQ(InitSocketPostData(&work, 3), 1);
  MQNode* nodes[] = {link_.node, reader_, nullptr};
  MQNode* out[3];
  int status;
  mnWrite(Message(1, 4), link_.node);
  Await(reader_->sock.fd);
  EXPECT_EQ(Cost([&] { return mnNPostEx(nodes, out, out, out, 0, &status, &work); }), "select(0.000000s) = 1 | 0 0");
  EXPECT_EQ(Cost([&] { return mnNPost(nodes, out, out, out, 0, &status); }), "select(0.000000s) = 1 | 0 7");
  FreeSocketPostData(&work);
}

}  // namespace
