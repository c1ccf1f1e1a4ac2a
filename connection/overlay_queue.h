#pragma once

#include <chrono>
#include <cstdint>
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

// A check box under a dialog's message ("Больше не показывать"). Its answer is handed over with
// whichever button closes the dialog, before the button's action runs.
struct OverlayChoice {
  std::string title;
  std::function<void(bool checked)> onAnswer{};
};

// One dialog or toast shown over the screens.
struct OverlayItem {
  enum class Kind { dialog, toast };
  Kind kind = Kind::dialog;
  std::string identifier;  // stable name, for example "modes_full_mode_confirm"
  std::string title;
  std::string message;
  std::vector<OverlayButton> buttons{};
  std::optional<OverlayChoice> choice{};
  // Given by the queue when the item is queued: unique within the run, so that an answer meant for
  // one showing of a dialog never lands on a later showing of the same identifier.
  std::uint64_t id = 0;
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

  // The item's id, or 0 when an equal dialog is already showing or waiting.
  std::uint64_t enqueue(OverlayItem item);
  void showToast(std::string identifier, std::string message);
  // Answers the item showing now with one of its buttons (runs its action) and shows the next.
  // Nothing happens when `identifier` is not the item showing now.
  void respond(const std::string& identifier, std::size_t buttonIndex);
  // The same for the item with this id; `choice` answers its check box. False, and nothing
  // happens, when that item is not the one showing or has no such button.
  bool respond(std::uint64_t id, std::size_t buttonIndex, bool choice = false);
  // Closes the item showing now without an answer.
  void dismiss(const std::string& identifier);
  // Takes a dialog back, showing or waiting, without an answer (the question was settled
  // another way). False when no item has that identifier.
  bool withdraw(const std::string& identifier);

  // What is showing now; observers hear of every change.
  [[nodiscard]] Published<std::optional<OverlayItem>>& current() { return current_; }
  [[nodiscard]] std::size_t waitingCount() const { return waiting_.size(); }

 private:
  void showNext();

  EventLoop& loop_;
  std::deque<OverlayItem> waiting_;
  std::uint64_t nextId_ = 1;
  Published<std::optional<OverlayItem>> current_;
  OneShotTimer toastTimer_;
};

}  // namespace norvik
