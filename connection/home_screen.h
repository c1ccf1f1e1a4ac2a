#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "connection/connection_messages.h"
#include "connection/overlay_queue.h"
#include "platform/published.h"

namespace norvik {

// What the home screen shows about the connection flow, as published values a screen, the widget
// bridge or the command line render: the operation in progress, the busy text, the last error, the
// VPN-permission and extension-approval cards, and whether the toggle is locked. Errors and toasts
// also go to the overlay queue.
//
// Threading: the main loop. Ownership: VPNViewModel's; the tunnel state machine writes to it.
class HomeScreen {
 public:
  enum class Operation { none, keyInstallation, serverChange };

  struct ShownError {
    std::string title;
    std::string message;
    bool operator==(const ShownError&) const = default;
  };

  // Where the installed key leads, as the backend named it when it gave the key ("serverName",
  // "location"). It belongs to one server address: a key from elsewhere (a refresh from the main
  // configuration names no place) leaves it describing a server the tunnel no longer uses.
  struct ServerPlace {
    std::string address;
    std::string name;
    std::string location;
    bool operator==(const ServerPlace&) const = default;
  };

  // Whether the toggle is locked because the last main-configuration load failed.
  struct SwitchBlock {
    bool locked = false;
    bool offline = false;
    bool operator==(const SwitchBlock&) const = default;
  };

  explicit HomeScreen(OverlayQueue& overlays) : overlays_(overlays) {}
  HomeScreen(const HomeScreen&) = delete;
  HomeScreen& operator=(const HomeScreen&) = delete;

  [[nodiscard]] Published<Operation>& operation() { return operation_; }
  [[nodiscard]] Published<std::optional<BusyText>>& busyText() { return busyText_; }
  [[nodiscard]] Published<std::optional<ShownError>>& lastError() { return lastError_; }
  [[nodiscard]] Published<bool>& permissionCardShown() { return permissionCard_; }
  [[nodiscard]] Published<bool>& extensionApprovalCardShown() { return approvalCard_; }
  [[nodiscard]] Published<SwitchBlock>& switchBlock() { return switchBlock_; }
  [[nodiscard]] Published<std::optional<ServerPlace>>& serverPlace() { return serverPlace_; }
  [[nodiscard]] OverlayQueue& overlays() { return overlays_; }

  void setBusy(std::optional<BusyText> text) {
    loadingBusy_ = false;
    busyText_.set(std::move(text));
  }
  // The "loading the main configuration" text, shown only while nothing else is.
  void setLoading(bool loading) {
    if (loading && operation_.get() == Operation::none && !busyText_.get()) {
      loadingBusy_ = true;
      busyText_.set(busy_texts::loadingData());
    } else if (!loading && loadingBusy_) {
      loadingBusy_ = false;
      if (busyText_.get() == busy_texts::loadingData()) busyText_.set(std::nullopt);
    }
  }
  void beginOperation(Operation operation, std::optional<BusyText> text) {
    operation_.set(operation);
    setBusy(std::move(text));
  }
  void endOperation() {
    operation_.set(Operation::none);
    setBusy(std::nullopt);
  }
  // Shows an error: it becomes the last error and a "connection_error" dialog.
  ShownError showError(std::string_view title, std::string message) {
    ShownError error{std::string(title), std::move(message)};
    lastError_.set(error);
    overlays_.enqueue(OverlayItem{OverlayItem::Kind::dialog, "connection_error", error.title, error.message, {{"OK"}}});
    return error;
  }
  void showToast(std::string identifier, std::string_view message) {
    overlays_.showToast(std::move(identifier), std::string(message));
  }

 private:
  OverlayQueue& overlays_;
  Published<Operation> operation_{Operation::none};
  Published<std::optional<BusyText>> busyText_;
  Published<std::optional<ShownError>> lastError_;
  Published<bool> permissionCard_{false};
  Published<bool> approvalCard_{false};
  Published<SwitchBlock> switchBlock_;
  Published<std::optional<ServerPlace>> serverPlace_;
  bool loadingBusy_ = false;
};

}  // namespace norvik
