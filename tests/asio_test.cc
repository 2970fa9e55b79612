// asio_test.cc - asio.hpp: operations wait, end, and can be cancelled without losing anything.
#include "mqnode/asio.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <thread>

#include "tests/support/nodes.hh"

namespace {

using namespace std::chrono_literals;
using mqnode::AsyncNode;
using mqnode::Result;
using mqnode::within;

mqnode::Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

class AsioTest : public NodeTest {
 protected:
  // Starts an operation, which stores its result in *told when it ends.
  void Start(asio::awaitable<Result> operation, std::string* told) {
    const auto keep = [](asio::awaitable<Result> started, std::string* place) -> asio::awaitable<void> {
      const Result result = co_await std::move(started);
      *place = result ? "ok" : result.name();
    };
    told->clear();
    asio::co_spawn(loop_, keep(std::move(operation), told), asio::detached);
  }
  std::string Run(asio::awaitable<Result> operation) {
    std::string told;
    Start(std::move(operation), &told);
    loop_.restart();
    loop_.run_for(10s);
    return told;
  }
  // The result of a read or, after a success, what was read.
  std::string Read(asio::awaitable<Result> operation, const Message& in) {
    const std::string told = Run(std::move(operation));
    return told == "ok" ? in.Text() : told;
  }
  void Poll() {
    loop_.restart();
    loop_.poll();
  }
  AsyncNode Take(mqnode::Node node, AsyncNode::Framing framing = AsyncNode::Framing::kPlain,
                 const MqLoopLimits& limits = mq_loop_limits()) {
    AsyncNode taken(loop_.get_executor(), std::move(node), framing, limits);
    EXPECT_TRUE(taken.status());
    return taken;
  }
  // A node and the plain socket at its other end.
  std::pair<AsyncNode, Peer> Linked(AsyncNode::Framing framing = AsyncNode::Framing::kPlain) {
    const Peer listener = Peer::Listen();
    AsyncNode node = Take(mqnode::Node::connector(Local(listener.port())), framing);
    EXPECT_EQ(Run(node.open()), "ok");
    return {std::move(node), listener.Accept()};
  }

  asio::io_context loop_{1};
};

TEST_F(AsioTest, MessagesArriveByteByByte) {
  const Keys keys;
  const Message in;
  for (const auto framing : {AsyncNode::Framing::kPlain, AsyncNode::Framing::kSigned}) {
    auto [node, peer] = Linked(framing);
    for (const uint32_t command : {7u, 8u}) {
      const std::string wire = framing == AsyncNode::Framing::kPlain ? Wire(command) : keys.Sign(command);
      std::string told;
      Start(node.read(in), &told);
      for (const char& byte : wire) {
        EXPECT_EQ(told, "");
        peer.Send({&byte, 1});
        Await(node.node().descriptor());
        Poll();
        EXPECT_EQ(node.is_in_message(), &byte != &wire.back());
      }
      EXPECT_EQ(told + " " + in.Text(), format("ok {}:4 from {}", command, in.sender()));
    }
    std::string finished;
    Start(node.finish(), &finished);
    Poll();
    EXPECT_EQ(peer.Read() + finished, "") << "the peer learns of the end, and is waited for";
    peer = Peer();
    Await(node.node().descriptor());
    Poll();
    EXPECT_EQ(finished, "ok");
  }
}

TEST_F(AsioTest, TimeOutsLoseNothing) {
  auto [node, peer] = Linked();
  const Message in, out(5, 1000);
  const std::string wire = Wire(7);
  peer.Send(wire.substr(0, 140));
  EXPECT_EQ(Run(within(10ms, node.read(in))), "SOCK_WAIT_TIMEOUT");
  peer.Send(wire.substr(140) + Wire(8));
  EXPECT_EQ(Read(within(10s, node.read(in)), in), "7:4 from peer");
  EXPECT_EQ(Read(node.read(in), in), "8:4 from peer");

  Platform::Limit("send", {100});
  Platform::Fail("send", 2, EAGAIN, Platform::kOnwards);
  EXPECT_EQ(Run(within(10ms, node.write(out))), "SOCK_WAIT_TIMEOUT");
  Platform::Mend();
  out.Put(6, 0);
  EXPECT_EQ(Run(node.write(out)), "ok");
  EXPECT_EQ(peer.Read(1156 + 156).size(), 1312U);
  EXPECT_EQ(WriteState(node.node().get()), "0, sent 2, out 0");

  // A read sends what a cancelled write has left.
  Platform::Limit("send", {100});
  Platform::Fail("send", 2, EAGAIN, Platform::kOnwards);
  EXPECT_EQ(Run(within(10ms, node.write(out))), "SOCK_WAIT_TIMEOUT");
  Platform::Mend();
  EXPECT_EQ(Run(within(10ms, node.read(in))), "SOCK_WAIT_TIMEOUT");
  EXPECT_EQ(WriteState(node.node().get()), "0, sent 3, out 0");
  EXPECT_EQ(Run(node.flush()), "ok");

  // Time in which the loop does not run does not count.
  std::string told;
  Start(within(10ms, node.read(in)), &told);
  Poll();
  std::this_thread::sleep_for(520ms);
  Poll();
  peer.Send(wire);
  loop_.run_for(10s);
  EXPECT_EQ(told, "ok");

  // The node is closed after the loss of a part of a message.
  Platform::Limit("send", {100});
  Platform::Fail("send", 2, EAGAIN);
  Platform::Fail("send", 3, EPIPE);
  EXPECT_EQ(Run(node.write(out)), "EPIPE");
  EXPECT_FALSE(node.node().is_open());
}

TEST_F(AsioTest, ClosingEndsWhatWaits) {
  const Message in;
  for (const bool destroyed : {false, true}) {
    auto [node, peer] = Linked();
    std::string told;
    Start(node.read(in), &told);
    Poll();
    destroyed ? static_cast<void>(node = AsyncNode()) : node.close();
    Poll();
    EXPECT_EQ(told, "ECANCELED");
  }
  auto [left, peer] = Linked();
  peer = Peer();
  EXPECT_EQ(Run(left.read(in)), "SOCK_PEER_CLOSED");
  AsyncNode listener = Take(mqnode::Node::listener(Local(0))), child;
  EXPECT_EQ(Run(within(10ms, listener.accept(child))), "SOCK_WAIT_TIMEOUT");
  EXPECT_EQ(Run(Take(mqnode::Node::connector(Local(1))).open()), "ECONNREFUSED");
}

TEST_F(AsioTest, AcceptingPausesWhenThereIsNoPlace) {
  MqLoopLimits limits = mq_loop_limits();
  limits.nodes = 1;
  AsyncNode listener = Take(mqnode::Node::listener(Local(0)), AsyncNode::Framing::kPlain, limits), first, second;
  const Peer one = Peer::Connect(listener.node().local_port()), two = Peer::Connect(listener.node().local_port());
  Platform::Fail("accept", 1, EMFILE);
  EXPECT_EQ(Run(within(10s, listener.accept(first))), "ok");
  EXPECT_EQ(Run(within(100ms, listener.accept(second))), "SOCK_WAIT_TIMEOUT");
  first.close();
  EXPECT_EQ(Run(within(10s, listener.accept(second))), "ok");
  const Message in;
  two.Send(With(Wire(7), kAtBody, limits.messageBytes + 1));
  EXPECT_EQ(Run(second.read(in)), "EMSGSIZE");
}

TEST_F(AsioTest, ANewConnectionTakesThePlaceOfAnother) {
  MqLoopLimits limits = mq_loop_limits();
  limits.nodes = 1, limits.keptMsec = 0;
  AsyncNode listener = Take(mqnode::Node::listener(Local(0)), AsyncNode::Framing::kPlain, limits), first, second;
  const Peer one = Peer::Connect(listener.node().local_port()), two = Peer::Connect(listener.node().local_port());
  const Message in;
  std::string told;
  EXPECT_EQ(Run(listener.accept(first)), "ok");
  Start(first.read(in), &told);
  EXPECT_EQ(Run(listener.accept(second)), "ok");
  EXPECT_EQ(told + " " + Run(first.write(in)), "ECONNABORTED ECONNABORTED");
  EXPECT_STREQ(first.why({0, ECONNABORTED, MQ_IN_SOCKET}), "its place is needed");
  EXPECT_TRUE(second.node().is_open());
}

TEST_F(AsioTest, DatagramsThatAreNoMessagesAreReported) {
  const AsyncNode node = Take(mqnode::Node::datagram(Local(0)));
  const Peer peer = Peer::Datagram();
  const Message in;
  peer.SendTo(node.node().local_port(), "not a message");
  peer.SendTo(node.node().local_port(), Wire(7));
  EXPECT_EQ(Run(node.read(in)), "MQ_BAD_MESSAGE");
  EXPECT_EQ(Read(node.read(in), in), "7:4 from peer");
  mqnode::Address to = node.node().sender();
  EXPECT_EQ(Run(node.write_to(in, to)), "ok");
  EXPECT_EQ(peer.Read().size(), 160U);
}

TEST_F(AsioTest, SignedMessages) {
  constexpr auto kSigned = AsyncNode::Framing::kSigned;
  const Keys keys;
  const Message in, out(7, 4);
  AsyncNode listener = Take(mqnode::Node::listener(Local(0)), kSigned), child;
  const AsyncNode client = Take(mqnode::Node::connector(Local(listener.node().local_port())));
  EXPECT_EQ(Run(client.open()), "ok");
  EXPECT_EQ(Run(listener.accept(child)), "ok");
  EXPECT_EQ(Run(client.write_signed(out, keys.signer)), "ok");
  EXPECT_EQ(Read(child.read(in), in), "7:4 from tester");

  const AsyncNode one = Take(mqnode::Node::datagram(Local(0))), other = Take(mqnode::Node::datagram(Local(0)), kSigned);
  mqnode::Address to = Local(other.node().local_port());
  EXPECT_EQ(Run(one.write_to(out, to)), "ok");
  EXPECT_EQ(Run(other.read(in)), "MQ_BAD_MESSAGE");
  EXPECT_EQ(Run(one.write_signed_to(out, to, keys.signer)), "ok");
  EXPECT_EQ(Read(other.read(in), in), "7:4 from tester");
}

}  // namespace
