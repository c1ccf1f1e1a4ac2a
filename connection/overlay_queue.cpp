#include "connection/overlay_queue.h"

#include <algorithm>

namespace norvik {

bool OverlayQueue::enqueue(OverlayItem item) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (item.kind == OverlayItem::Kind::dialog && !item.identifier.empty()) {
    const auto same = [&](const OverlayItem& other) { return other.identifier == item.identifier; };
    if ((current_.get() && same(*current_.get())) || std::ranges::any_of(waiting_, same)) return false;
  }
  waiting_.push_back(std::move(item));
  if (!current_.get()) showNext();
  return true;
}

void OverlayQueue::showToast(std::string identifier, std::string message) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  enqueue(OverlayItem{OverlayItem::Kind::toast, std::move(identifier), "", std::move(message)});
}

void OverlayQueue::respond(const std::string& identifier, std::size_t buttonIndex) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto& shown = current_.get();
  if (!shown || shown->identifier != identifier) return;
  std::function<void()> action;
  if (buttonIndex < shown->buttons.size()) action = shown->buttons[buttonIndex].action;
  current_.set(std::nullopt);
  // The answer may queue something new; it goes behind what already waits.
  if (action) action();
  if (!current_.get()) showNext();
}

void OverlayQueue::dismiss(const std::string& identifier) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto& shown = current_.get();
  if (!shown || shown->identifier != identifier) return;
  toastTimer_.stop();
  current_.set(std::nullopt);
  showNext();
}

void OverlayQueue::showNext() {
  if (waiting_.empty()) return;
  OverlayItem next = std::move(waiting_.front());
  waiting_.pop_front();
  const bool toast = next.kind == OverlayItem::Kind::toast;
  const std::string identifier = next.identifier;
  current_.set(std::move(next));
  if (toast) toastTimer_.start(loop_, kToastDuration, [this, identifier] { dismiss(identifier); });
}

}  // namespace norvik
