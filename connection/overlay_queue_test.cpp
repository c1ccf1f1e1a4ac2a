#include "connection/overlay_queue.h"

#include <gtest/gtest.h>

#include <utility>

#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

OverlayItem dialog(std::string identifier, std::function<void()> action = {}) {
  return OverlayItem{
      OverlayItem::Kind::dialog, std::move(identifier), "Заголовок", "Текст", {{"OK", std::move(action)}}};
}

TEST(OverlayQueue, ShowsOneAtATimeInOrderAndNeverTheSameDialogTwice) {
  testing::VirtualEventLoop loop;
  OverlayQueue queue(loop);
  EXPECT_TRUE(queue.enqueue(dialog("first")));
  EXPECT_TRUE(queue.enqueue(dialog("second")));
  EXPECT_FALSE(queue.enqueue(dialog("first"))) << "showing";
  EXPECT_FALSE(queue.enqueue(dialog("second"))) << "waiting";
  EXPECT_EQ(queue.current().get()->identifier, "first");
  EXPECT_EQ(queue.waitingCount(), 1u);

  queue.respond("second", 0);  // not the one showing: nothing happens
  EXPECT_EQ(queue.current().get()->identifier, "first");
  queue.respond("first", 0);
  EXPECT_EQ(queue.current().get()->identifier, "second");
  queue.dismiss("second");
  EXPECT_FALSE(queue.current().get().has_value());
  EXPECT_TRUE(queue.enqueue(dialog("first"))) << "answered dialogs may come again";
}

TEST(OverlayQueue, AnAnswerRunsItsActionAndWhatItQueuesWaitsItsTurn) {
  testing::VirtualEventLoop loop;
  OverlayQueue queue(loop);
  std::vector<std::string> shown;
  auto watch = queue.current().subscribe([&](const auto& item) {
    if (item) shown.push_back(item->identifier);
  });
  queue.enqueue(dialog("confirm", [&] { queue.enqueue(dialog("after")); }));
  queue.enqueue(dialog("queued"));
  queue.respond("confirm", 0);
  queue.respond("queued", 0);
  EXPECT_EQ(shown, (std::vector<std::string>{"confirm", "queued", "after"}));
}

TEST(OverlayQueue, AToastClosesByItselfAfterThreeSeconds) {
  testing::VirtualEventLoop loop;
  OverlayQueue queue(loop);
  queue.showToast("server_changed", "Сервер сменён");
  queue.enqueue(dialog("next"));
  EXPECT_EQ(queue.current().get()->message, "Сервер сменён");
  loop.advance(2999ms);
  EXPECT_EQ(queue.current().get()->identifier, "server_changed");
  loop.advance(1ms);
  EXPECT_EQ(queue.current().get()->identifier, "next");
  loop.advance(1h);
  EXPECT_EQ(queue.current().get()->identifier, "next") << "a dialog waits for its answer";
}

TEST(OverlayQueue, EachShowingHasItsOwnIdAndAnAnswerByIdRunsTheButtonAndTheChoice) {
  testing::VirtualEventLoop loop;
  OverlayQueue queue(loop);
  std::vector<std::string> happened;
  OverlayItem confirm = dialog("settings_smart_mode_disable", [&] { happened.emplace_back("confirm"); });
  confirm.buttons.push_back({"Оставить", [&] { happened.emplace_back("keep"); }});
  confirm.choice = OverlayChoice{"Больше не показывать",
                                 [&](bool checked) { happened.emplace_back(checked ? "hide" : "ask again"); }};
  const std::uint64_t first = queue.enqueue(confirm);
  const std::uint64_t second = queue.enqueue(dialog("connection_error"));
  ASSERT_NE(first, 0u);
  EXPECT_GT(second, first);
  EXPECT_EQ(queue.current().get()->id, first);

  EXPECT_FALSE(queue.respond(second, 0)) << "not the one showing";
  EXPECT_FALSE(queue.respond(first, 2)) << "no such button";
  EXPECT_TRUE(happened.empty());
  EXPECT_TRUE(queue.respond(first, 1, /*choice=*/true));
  EXPECT_EQ(happened, (std::vector<std::string>{"hide", "keep"}));
  EXPECT_EQ(queue.current().get()->id, second);
  EXPECT_FALSE(queue.respond(first, 0)) << "answered once";

  // The same dialog queued again is a new showing with a new id.
  queue.respond(second, 0);
  EXPECT_GT(queue.enqueue(confirm), second);
}

TEST(OverlayQueue, AWithdrawnDialogLeavesTheQueueWithoutAnAnswer) {
  testing::VirtualEventLoop loop;
  OverlayQueue queue(loop);
  bool answered = false;
  queue.enqueue(dialog("first"));
  queue.enqueue(dialog("modes_full_mode_confirm", [&] { answered = true; }));
  EXPECT_TRUE(queue.withdraw("modes_full_mode_confirm"));
  EXPECT_EQ(queue.waitingCount(), 0u);
  EXPECT_TRUE(queue.withdraw("first"));
  EXPECT_FALSE(queue.current().get().has_value());
  EXPECT_FALSE(queue.withdraw("first"));
  EXPECT_FALSE(answered);
}

}  // namespace
}  // namespace norvik
