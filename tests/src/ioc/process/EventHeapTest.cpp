#include "src/ioc/process/EventHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/FakeEvent.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;

struct Given {
  std::int64_t time = 100;
  std::uint32_t id = 1;
  std::int32_t pid = 10;
  EventType type = EventType::Write;
};

std::unique_ptr<edr::Event> Event(const Given& given, const std::string& name) {
  auto event = std::make_unique<fakes::FakeEvent>(given.type, "Write", name);
  event->timestamp = given.time;
  event->id = given.id;
  event->pid = given.pid;
  return event;
}

std::string Order(EventHeap& heap) {
  std::string order;
  while (!heap.IsEmpty()) order += heap.Pop()->GetFile()->GetPath();
  return order;
}

std::string Order(const std::vector<Given>& given) {
  EventHeap heap;
  char name = 'a';
  for (const Given& one : given) heap.Push(Event(one, std::string(1, name++)));
  return Order(heap);
}

TEST(EventHeapTest, TheEarliestEventLeavesFirst) {
  EXPECT_EQ(Order({{.time = 300}, {.time = 100}, {.time = 200}}), "bca");
}

TEST(EventHeapTest, TheTimeCountsBeforeTheSerialNumber) {
  EXPECT_EQ(Order({{.time = 300, .id = 1}, {.time = 100, .id = 9}}), "ba");
}

TEST(EventHeapTest, OfTheSameTimeTheLowerSerialNumberLeavesFirst) {
  EXPECT_EQ(Order({{.id = 9, .pid = 1}, {.id = 7, .pid = 3}, {.id = 8, .pid = 2}}), "bca");
}

TEST(EventHeapTest, WithoutASerialNumberTheLowerPidLeavesFirst) {
  EXPECT_EQ(Order({{.id = 0, .pid = 30}, {.id = 5, .pid = 20}}), "ba");
  EXPECT_EQ(Order({{.id = 5, .pid = 30}, {.id = 0, .pid = 20}}), "ba");
  EXPECT_EQ(Order({{.id = 0, .pid = 20}, {.id = 5, .pid = 30}}), "ab");
}

// Two by two: b before c by the serial number, c before a and a before b by the pid.
TEST(EventHeapTest, TheOrderDoesNotDependOnWhoCameFirst) {
  const std::vector<std::pair<std::string, Given>> ring = {{"a", {.id = 0, .pid = 20}},
                                                           {"b", {.id = 3, .pid = 30}},
                                                           {"c", {.id = 5, .pid = 10}},
                                                           {"d", {.id = 0, .pid = 40}}};
  std::vector<std::size_t> order = {0, 1, 2, 3};
  do {
    EventHeap heap;
    for (const std::size_t i : order) heap.Push(Event(ring[i].second, ring[i].first));
    EXPECT_EQ(Order(heap), "abcd");
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(EventHeapTest, WithTheSameSerialNumberTheLowerPidLeavesFirst) {
  EXPECT_EQ(Order({{.pid = 30}, {.pid = 20}}), "ba");
}

TEST(EventHeapTest, OfTheSamePidTheLowerTypeLeavesFirst) {
  EXPECT_EQ(Order({{.type = EventType::ProcessExit}, {.type = EventType::Delete}, {.type = EventType::Write}}), "bca");
}

TEST(EventHeapTest, WhatIsAlikeLeavesInTheOrderInWhichItCame) {
  EXPECT_EQ(Order(std::vector<Given>(26)), "abcdefghijklmnopqrstuvwxyz");
}

TEST(EventHeapTest, AnEmptyHeapHasNoEvent) {
  EventHeap heap;
  EXPECT_TRUE(heap.IsEmpty());
  EXPECT_EQ(heap.Pop(), nullptr);
}

TEST(EventHeapTest, ItsSizeIsTheNumberOfEvents) {
  EventHeap heap;
  heap.Push(Event({}, "a"));
  heap.Push(Event({}, "b"));
  EXPECT_EQ(heap.GetSize(), 2U);
  EXPECT_NE(heap.Pop(), nullptr);
  EXPECT_EQ(heap.GetSize(), 1U);
}

}  // namespace
}  // namespace zagent::ioc::internal
