#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/published.h"

namespace norvik {

struct OverlayButton {
  std::string title;
  std::function<void()> action{};  // may be empty: the button only closes the dialog
};

// One dialog or toast shown over the screens.
struct OverlayItem {
  enum class Kind { dialog, toast };
  Kind kind = Kind::dialog;
  std::string identifier;  // stable name, for example "modes_full_mode_confirm"
  std::string title;
  std::string message;
  std::vector<OverlayButton> buttons{};
};

// The queue of dialogs and toasts that the screens show one at a time, in order. A dialog whose
// identifier is already showing or waiting is not queued twice. A toast closes by itself after a
// few seconds; a dialog stays until it is answered.
//
// Threading: a main-loop object.
class OverlayQueue {
 public:
  static constexpr std::chrono::seconds kToastDuration{3};

  explicit OverlayQueue(EventLoop& loop) : loop_(loop) {}

  // False when an equal dialog is already showing or waiting.
  bool enqueue(OverlayItem item);
  void showToast(std::string identifier, std::string message);
  // Answers the item showing now with one of its buttons (runs its action) and shows the next.
  // Nothing happens when `identifier` is not the item showing now.
  void respond(const std::string& identifier, std::size_t buttonIndex);
  // Closes the item showing now without an answer.
  void dismiss(const std::string& identifier);

  // What is showing now; observers hear of every change.
  [[nodiscard]] Published<std::optional<OverlayItem>>& current() { return current_; }
  [[nodiscard]] std::size_t waitingCount() const { return waiting_.size(); }

 private:
  void showNext();

  EventLoop& loop_;
  std::deque<OverlayItem> waiting_;
  Published<std::optional<OverlayItem>> current_;
  OneShotTimer toastTimer_;
};

}  // namespace norvik
