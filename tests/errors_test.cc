// errors_test.cc - the table of error codes: complete, unambiguous in each place, and true to the system's own names.
#include "mqnode/errors.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
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
    const std::set<std::string_view> names = {entry.name, entry.alias != nullptr ? entry.alias : entry.name};
    const char* const of_system = entry.code > 0 ? strerrorname_np(entry.code) : nullptr;
    EXPECT_TRUE(of_system == nullptr || (entry.places & MQ_IN_SOCKET) == 0 || names.contains(of_system)) << entry.name;
    EXPECT_EQ(mq_error_by_name(entry.name), &entry);
    EXPECT_TRUE(entry.alias == nullptr || mq_error_by_name(entry.alias) == &entry) << entry.name;
  }
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
