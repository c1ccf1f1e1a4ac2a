#include "platform/published.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace norvik {
namespace {

TEST(Published, NotifiesOnlyRealChangesOfComparableValues) {
  Published<int> value(1);
  std::vector<int> seen;
  auto subscription = value.subscribe([&](const int& v) { seen.push_back(v); });
  value.set(1);
  value.set(2);
  value.set(2);
  value.set(3);
  EXPECT_EQ(seen, (std::vector<int>{2, 3}));
  EXPECT_EQ(value.get(), 3);
}

TEST(Published, SubscriptionEndsWithItsToken) {
  Published<std::string> value;
  int calls = 0;
  {
    auto subscription = value.subscribe([&](const std::string&) { ++calls; });
    value.set("a");
  }
  value.set("b");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(value.observerCount(), 0u);
}

TEST(Published, ObserversMayUnsubscribeOthersAndThemselvesWhileNotified) {
  Published<int> value;
  std::vector<std::string> calls;
  std::optional<Subscription> first;
  std::optional<Subscription> second;
  first = value.subscribe([&](const int&) {
    calls.emplace_back("first");
    first.reset();   // itself
    second.reset();  // the next one, before its turn
  });
  second = value.subscribe([&](const int&) { calls.emplace_back("second"); });
  value.set(1);
  value.set(2);
  EXPECT_EQ(calls, (std::vector<std::string>{"first"}));
}

}  // namespace
}  // namespace norvik
