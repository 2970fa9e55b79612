// cost_test.cc - what a message and a wait cost: system calls and allocations, counted.
#include "tests/support/nodes.hh"

namespace {

// What one operation took: its system calls, then allocations of the companion and of the library itself.
Lines Cost(const std::function<void()>& run) {
  Platform::Forget();
  const uint64_t companion = mqc_allocations();
  const size_t library = Platform::Allocations();
  run();
  Lines cost = Platform::Calls();
  cost.push_back(std::to_string(mqc_allocations() - companion) + " allocations, " +
                 std::to_string(Platform::Allocations() - library) + " blocks");
  return cost;
}

class CostTest : public NodeTest {
 protected:
  // A second node over the other end of the first one's connection.
  CostTest() {
    link_ = Connect();
    SockRec sock;
    CreateSocketFromExisting(&sock, link_.peer.Release());
    reader_ = Node(CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT));
  }

  Link link_;
  Node reader_;
  Message in_;
};

std::string Call(const char* name, size_t size) {
  return std::string(name) + "(" + std::to_string(size) + ") = " + std::to_string(size);
}

// One send a message; two receives a read, which allocates nothing once buffer and record have grown. A write makes its
// descriptor and its data area.
TEST_F(CostTest, PlainMessages) {
  for (const size_t size : {44u, 1004u, 16364u, 65516u}) {
    const Message out(1, size);
    const size_t total = size + 156;
    for (const bool grown : {false, true}) {
      EXPECT_EQ(Cost([&] { ASSERT_EQ(mnWrite(out, link_.node), 1); }),
                (Lines{Call("send", total), "2 allocations, 0 blocks"}));
      // All of it has to be there for one receive to bring it.
      std::string peeked(total, '\0');
      ASSERT_EQ(recv(reader_->sock.fd, peeked.data(), total, MSG_PEEK | MSG_WAITALL), static_cast<ssize_t>(total));
      const Lines cost = Cost([&] { ASSERT_EQ(mnRead(in_, reader_), 1); });
      if (!grown) continue;
      EXPECT_EQ(cost, (Lines{Call("recvfrom", 136), Call("recvfrom", total - 136), "0 allocations, 0 blocks"}));
    }
  }
}

// The reader remembers each message that it accepts, in a block of its own.
TEST_F(CostTest, SignedMessages) {
  uint8_t secret[MQC_KEY_BYTES], key[MQC_KEY_BYTES];
  mqc_generate_key(secret, key);
  mqc_ring_add("tester", key, nullptr, 0);
  MqcSigner* const signer = mqc_signer_new("tester", secret, nullptr, 0);
  const Message out(1, 1004);
  for (const bool grown : {false, true}) {
    EXPECT_EQ(Cost([&] { ASSERT_EQ(mnSWrite(out, link_.node, 1, signer), 1); }),
              (Lines{Call("send", 32 + 1160 + 96), "2 allocations, 0 blocks"}));
    const Lines cost = Cost([&] { ASSERT_EQ(mnSRead(in_, reader_, 1, nullptr), 1); });
    if (!grown) continue;
    EXPECT_EQ(cost, (Lines{Call("recvfrom", 32), Call("recvfrom", 1160 + 96), "1 allocations, 0 blocks"}));
  }
  mqc_signer_free(signer);
  mqc_ring_clear();
}

TEST_F(CostTest, Datagrams) {
  const Node node = CreateDatagram();
  const std::string place = "127.0.0.1:" + std::to_string(PortOf(node));
  SockAddrRec to = AddressOf("127.0.0.1", PortOf(node));
  const Message out(1, 1004);
  for (const bool grown : {false, true}) {
    EXPECT_EQ(Cost([&] { ASSERT_EQ(mnWriteTo(out, node, &to), 1); }),
              (Lines{"sendto(1160, " + place + ") = 1160", "2 allocations, 0 blocks"}));
    const Lines cost = Cost([&] { ASSERT_EQ(mnRead(in_, node), 1); });
    if (!grown) continue;
    EXPECT_EQ(cost, (Lines{"recvfrom(16520) = 1160", "0 allocations, 0 blocks"}));
  }
}

// Behind a queue a write costs an entry and no system call; finishing costs one send a message.
TEST_F(CostTest, QueuedWrites) {
  const Message out(1, 1004);
  Platform::Fail("send", 1, EAGAIN);
  EXPECT_EQ(Cost([&] { mnWrite(out, link_.node); }), (Lines{"send(1160) = -1 EAGAIN", "4 allocations, 0 blocks"}));
  EXPECT_EQ(Cost([&] { mnWrite(out, link_.node); }), Lines{"3 allocations, 0 blocks"});
  EXPECT_EQ(Cost([&] { mnFinishWrite(link_.node); }),
            (Lines{Call("send", 1160), Call("send", 1160), "0 allocations, 0 blocks"}));
}

TEST_F(CostTest, Waits) {
  SockPostData work;
  ASSERT_EQ(InitSocketPostData(&work, 3), 1);
  MQNode* nodes[] = {link_.node, reader_, nullptr};
  MQNode* out[3];
  int status;
  reader_->sock.connected = 1;  // it was adopted; else the first wait would watch it for writing
  const Message msg(1, 4);
  mnWrite(msg, link_.node);
  AwaitReadable(reader_->sock.fd);
  const Lines free = {"select(0.000000s) = 1", "0 allocations, 0 blocks"};
  EXPECT_EQ(Cost([&] { mnPostExMSec(nodes, out, out, 0, &status, &work); }), free);
  EXPECT_EQ(Cost([&] { mnNPostEx(nodes, out, out, out, 0, &status, &work); }), free);
  FreeSocketPostData(&work);
  const Lines own = {"select(0.000000s) = 1", "0 allocations, 7 blocks"};
  EXPECT_EQ(Cost([&] { mnPost(nodes, out, out, 0, &status); }), own);
  EXPECT_EQ(Cost([&] { mnNPost(nodes, out, out, out, 0, &status); }), own);
}

}  // namespace
