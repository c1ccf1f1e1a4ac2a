#include "connection/overlay_queue.h"

#include <algorithm>

namespace norvik {

std::uint64_t OverlayQueue::enqueue(OverlayItem item) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (item.kind == OverlayItem::Kind::dialog && !item.identifier.empty()) {
    const auto same = [&](const OverlayItem& other) { return other.identifier == item.identifier; };
    if ((current_.get() && same(*current_.get())) || std::ranges::any_of(waiting_, same)) return 0;
  }
  item.id = nextId_++;
  const std::uint64_t id = item.id;
  waiting_.push_back(std::move(item));
  if (!current_.get()) showNext();
  return id;
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

bool OverlayQueue::respond(std::uint64_t id, std::size_t buttonIndex, bool choice) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto& shown = current_.get();
  if (!shown || shown->id != id || buttonIndex >= shown->buttons.size()) return false;
  std::function<void()> action = shown->buttons[buttonIndex].action;
  std::function<void(bool)> answerChoice = shown->choice ? shown->choice->onAnswer : nullptr;
  toastTimer_.stop();
  current_.set(std::nullopt);
  if (answerChoice) answerChoice(choice);
  if (action) action();
  if (!current_.get()) showNext();
  return true;
}

bool OverlayQueue::withdraw(const std::string& identifier) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto erased = std::erase_if(waiting_, [&](const OverlayItem& item) { return item.identifier == identifier; });
  if (current_.get() && current_.get()->identifier == identifier) {
    dismiss(identifier);
    return true;
  }
  return erased > 0;
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
