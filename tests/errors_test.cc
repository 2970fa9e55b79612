// errors_test.cc - the table of error codes: complete, unambiguous in each place, and true to the system's own names.
#include "mqnode/errors.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

std::vector<MqErrorInfo> Table() {
  size_t count = 0;
  const MqErrorInfo* const table = mq_error_table(&count);
  return {table, table + count};
}

const std::vector<unsigned> kPlaces = {MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS};

TEST(Errors, EveryEntryIsFoundByCodeInEachOfItsPlacesAndByBothNames) {
  for (const MqErrorInfo& entry : Table()) {
    for (const unsigned place : kPlaces) {
      const MqErrorInfo* const found = mq_error_find(entry.code, place);
      if ((entry.places & place) == 0 || entry.code == MQ_NO_DESCRIPTOR) continue;
      ASSERT_NE(found, nullptr) << entry.name;
      EXPECT_STREQ(found->name, entry.name) << "place " << place << ": one code must have one meaning in one place";
    }
    EXPECT_STREQ(mq_error_by_name(entry.name)->name, entry.name);
    if (entry.alias == nullptr) continue;
    EXPECT_STREQ(mq_error_by_name(entry.alias)->name, entry.name);
  }
}

// What the headers' enumerations define must be in the table under that name.
TEST(Errors, CodesOfTheHeadersAreNamedAsThere) {
#define ROW(name, place) \
  { {name, place}, #name }
  const std::map<std::pair<int, unsigned>, std::string> expected = {
      ROW(MQ_OK, MQ_IN_NODE),
      ROW(MQ_AGAIN, MQ_IN_NODE),
      ROW(MQ_NO_DESCRIPTOR, MQ_IN_NODE),
      ROW(MQ_BAD_MESSAGE, MQ_IN_NODE),
      ROW(MQ_NO_ROOM, MQ_IN_NODE),
      ROW(MQ_BAD_BODY, MQ_IN_NODE),
      ROW(MQ_NOT_SIGNED, MQ_IN_NODE),
      ROW(MQ_NOT_AUTHENTIC, MQ_IN_NODE),
      ROW(MQ_WRITE_LIMIT, MQ_IN_NODE),
      ROW(SOCK_WOULD_BLOCK, MQ_IN_SOCKET),
      ROW(SOCK_NO_DESTINATION, MQ_IN_SOCKET),
      ROW(SOCK_WAIT_TIMEOUT, MQ_IN_STATUS),
      ROW(SOCK_SERVICE_UNKNOWN, MQ_IN_SOCKET),
      ROW(SOCK_HOST_UNKNOWN, MQ_IN_SOCKET),
      ROW(SOCK_PEER_CLOSED, MQ_IN_SOCKET),
      ROW(ENOBUFS, MQ_IN_SOCKET),
  };
#undef ROW
  for (const auto& [key, name] : expected) {
    const MqErrorInfo* const found = mq_error_find(key.first, key.second);
    EXPECT_STREQ(found != nullptr ? found->name : "nothing", name.c_str()) << key.first;
  }
}

TEST(Errors, TheCauseOfANodesFailureIsItsOwnOrOfADroppedWriteItsSockets) {
  const struct {
    int node, sock, cause;
    unsigned place;
  } rows[] = {{MQ_OK, 0, MQ_OK, MQ_IN_SOCKET},
              {MQ_BAD_MESSAGE, 0, MQ_BAD_MESSAGE, MQ_IN_NODE},
              {ECONNRESET, ECONNRESET, ECONNRESET, MQ_IN_SOCKET},
              {ENOBUFS, ENOBUFS, ENOBUFS, MQ_IN_SOCKET},
              {MQ_NO_DESCRIPTOR, 0, MQ_NO_DESCRIPTOR, MQ_IN_NODE},
              {MQ_AGAIN, EPIPE, EPIPE, MQ_IN_SOCKET},
              {MQ_AGAIN, 0, MQ_AGAIN, MQ_IN_NODE},
              {MQ_AGAIN, SOCK_WOULD_BLOCK, MQ_AGAIN, MQ_IN_NODE}};
  for (const auto& row : rows) {
    MQNode node{};
    node.error = row.node;
    node.sock.error = row.sock;
    unsigned place = 0;
    EXPECT_EQ(mq_node_cause(&node, &place), row.cause) << row.node << " over " << row.sock;
    EXPECT_EQ(place, row.place) << row.node << " over " << row.sock;
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
