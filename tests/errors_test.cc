// errors_test.cc - the table of error codes: complete, unambiguous in each place, and true to the system's own names.
#include "mqnode/errors.h"

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <tuple>

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
  const auto check = [](unsigned place, std::initializer_list<std::pair<int, const char*>> codes) {
    for (const auto& [code, name] : codes) EXPECT_STREQ(mq_error_find(code, place)->name, name);
  };
#define NAMED(code) {code, #code}
  check(MQ_IN_NODE, {NAMED(MQ_OK), NAMED(MQ_AGAIN), NAMED(MQ_NO_DESCRIPTOR), NAMED(MQ_BAD_MESSAGE), NAMED(MQ_NO_ROOM),
                     NAMED(MQ_BAD_BODY), NAMED(MQ_NOT_SIGNED), NAMED(MQ_NOT_AUTHENTIC), NAMED(MQ_WRITE_LIMIT)});
  check(MQ_IN_SOCKET, {NAMED(SOCK_WOULD_BLOCK), NAMED(SOCK_NO_DESTINATION), NAMED(SOCK_SERVICE_UNKNOWN),
                       NAMED(SOCK_HOST_UNKNOWN), NAMED(SOCK_PEER_CLOSED), NAMED(ENOBUFS)});
  check(MQ_IN_STATUS, {NAMED(SOCK_WAIT_TIMEOUT)});
}

TEST(Errors, TheCauseOfANodesFailureIsItsOwnOrOfADroppedWriteItsSockets) {
  for (const auto& [of_node, of_socket, cause, place] : {std::tuple{+MQ_OK, 0, +MQ_OK, +MQ_IN_SOCKET},
                                                         {MQ_BAD_MESSAGE, 0, MQ_BAD_MESSAGE, MQ_IN_NODE},
                                                         {ENOBUFS, ENOBUFS, ENOBUFS, MQ_IN_SOCKET},
                                                         {MQ_NO_DESCRIPTOR, 0, MQ_NO_DESCRIPTOR, MQ_IN_NODE},
                                                         {MQ_AGAIN, EPIPE, EPIPE, MQ_IN_SOCKET},
                                                         {MQ_AGAIN, SOCK_WOULD_BLOCK, MQ_AGAIN, MQ_IN_NODE}}) {
    MQNode node{};
    node.error = of_node;
    node.sock.error = of_socket;
    unsigned found = 0;
    EXPECT_EQ(mq_node_cause(&node, &found), cause);
    EXPECT_EQ(found, static_cast<unsigned>(place)) << cause;
  }
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
