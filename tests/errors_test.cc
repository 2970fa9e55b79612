// errors_test.cc - the table of error codes: complete, unambiguous in each place, and true to the system's own names.
#include "mqnode/errors.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>

namespace {

TEST(Errors, EveryEntryIsFoundByCodeInEachOfItsPlacesAndByBothNames) {
  size_t count = 0;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (const MqErrorInfo& entry : std::span(table, count)) {
    for (const unsigned place : {MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS}) {
      if ((entry.places & place) == 0 || entry.code == MQ_NO_DESCRIPTOR) continue;
      const MqErrorInfo* const found = mq_error_find(entry.code, place);
      ASSERT_NE(found, nullptr) << entry.name;
      EXPECT_STREQ(found->name, entry.name) << "place " << place << ": one code must have one meaning in one place";
    }
    EXPECT_EQ(mq_error_by_name(entry.name), &entry);
    EXPECT_TRUE(entry.alias == nullptr || mq_error_by_name(entry.alias) == &entry) << entry.name;
  }
}

// What the headers' enumerations define must be in the table under that name.
TEST(Errors, CodesOfTheHeadersAreNamedAsThere) {
#define NAMED(code, place) EXPECT_STREQ(mq_error_find(code, place)->name, #code)
  NAMED(MQ_OK, MQ_IN_NODE);
  NAMED(MQ_AGAIN, MQ_IN_NODE);
  NAMED(MQ_NO_DESCRIPTOR, MQ_IN_NODE);
  NAMED(MQ_BAD_MESSAGE, MQ_IN_NODE);
  NAMED(MQ_NO_ROOM, MQ_IN_NODE);
  NAMED(MQ_BAD_BODY, MQ_IN_NODE);
  NAMED(MQ_NOT_SIGNED, MQ_IN_NODE);
  NAMED(MQ_NOT_AUTHENTIC, MQ_IN_NODE);
  NAMED(MQ_WRITE_LIMIT, MQ_IN_NODE);
  NAMED(SOCK_WOULD_BLOCK, MQ_IN_SOCKET);
  NAMED(SOCK_NO_DESTINATION, MQ_IN_SOCKET);
  NAMED(SOCK_WAIT_TIMEOUT, MQ_IN_STATUS);
  NAMED(SOCK_SERVICE_UNKNOWN, MQ_IN_SOCKET);
  NAMED(SOCK_HOST_UNKNOWN, MQ_IN_SOCKET);
  NAMED(SOCK_PEER_CLOSED, MQ_IN_SOCKET);
  NAMED(ENOBUFS, MQ_IN_SOCKET);
#undef NAMED
}

TEST(Errors, TheCauseOfANodesFailureIsItsOwnOrOfADroppedWriteItsSockets) {
  const auto cause = [](int of_node, int of_socket) {
    MQNode node{};
    node.error = of_node;
    node.sock.error = of_socket;
    unsigned place = 0;
    const int code = mq_node_cause(&node, &place);
    return std::pair(code, place);
  };
  EXPECT_EQ(cause(MQ_OK, 0), std::pair(int{MQ_OK}, unsigned{MQ_IN_SOCKET}));
  EXPECT_EQ(cause(MQ_BAD_MESSAGE, 0), std::pair(int{MQ_BAD_MESSAGE}, unsigned{MQ_IN_NODE}));
  EXPECT_EQ(cause(ENOBUFS, ENOBUFS), std::pair(ENOBUFS, unsigned{MQ_IN_SOCKET}));
  EXPECT_EQ(cause(MQ_NO_DESCRIPTOR, 0), std::pair(int{MQ_NO_DESCRIPTOR}, unsigned{MQ_IN_NODE}));
  EXPECT_EQ(cause(MQ_AGAIN, EPIPE), std::pair(EPIPE, unsigned{MQ_IN_SOCKET}));
  EXPECT_EQ(cause(MQ_AGAIN, 0), std::pair(int{MQ_AGAIN}, unsigned{MQ_IN_NODE}));
  EXPECT_EQ(cause(MQ_AGAIN, SOCK_WOULD_BLOCK), std::pair(int{MQ_AGAIN}, unsigned{MQ_IN_NODE}));
  EXPECT_EQ(mq_node_cause(nullptr, nullptr), ENOMEM);
}

TEST(Errors, UnknownCodesAndNamesGiveTextsAndNoEntry) {
  EXPECT_EQ(mq_error_find(9001, MQ_IN_ANY), nullptr);
  EXPECT_EQ(mq_error_find(SOCK_WAIT_TIMEOUT, MQ_IN_SOCKET), nullptr) << "a timeout is never in a socket record";
  EXPECT_STREQ(mq_error_name(9001), "unknown code");
  EXPECT_NE(std::string(mq_error_meaning(9001)), "");
  EXPECT_NE(std::string(mq_error_remedy(9001)), "");
  EXPECT_EQ(mq_error_by_name("MQ_"), nullptr);
  EXPECT_EQ(mq_error_by_name(""), nullptr);
  EXPECT_STREQ(mq_error_by_name("econnrefused")->name, "ECONNREFUSED");
}

}  // namespace
