#include "entry/class_counter.h"

#include <optional>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/mock_host.h"

using testing::_;
using testing::InSequence;
using testing::StrEq;

TEST(ClassCounterTest, EmptyHostIsRefused) {
  try {
    CClassCounter counter(nullptr, "HDBI");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("[kvxcc] bad glb cls!", e.what());
  }
}

TEST(ClassCounterTest, TwoLiveObjectsReportOneTwoThenOneZero) {
  MockServices services;
  {
    InSequence order;
    EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After New][1]:HDBI"), 7));
    EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After New][2]:HDBI"), 7));
    EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After Del][1]:HDBI"), 7));
    EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After Del][0]:HDBI"), 7));
  }
  std::optional<CClassCounter> first, second;
  first.emplace(services.host, "HDBI");
  second.emplace(services.host, "HDBI");
  EXPECT_EQ(2u, services.counter_map["HDBI"]);
  first.reset();
  second.reset();
  EXPECT_EQ(0u, services.counter_map["HDBI"]);
}

TEST(ClassCounterTest, ATagMissingFromTheMapReportsZeroAndIsNotAdded) {
  MockServices services;
  EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After New][1]:GONE"), 7));
  EXPECT_CALL(services.mock_utility(), Message(82, StrEq("[After Del][0]:GONE"), 7));
  {
    CClassCounter counter(services.host, "GONE");
    services.counter_map.clear();  // another party dropped the tag meanwhile
  }
  EXPECT_EQ(0u, services.counter_map.count("GONE"));
}

TEST(ClassCounterTest, ReportsAreDroppedWithoutAUtilityService) {
  MockServices services;
  auto& utility = services.mock_utility();
  EXPECT_CALL(utility, Message(_, _, _)).Times(0);
  services.utility.reset();
  CClassCounter counter(services.host, "HDBI");
  EXPECT_EQ(1u, services.counter_map["HDBI"]);
}
