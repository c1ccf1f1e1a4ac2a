#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/named_notifications.h"

namespace norvik::testing {

// Named notifications inside one test: a post reaches the observers of the name on the loop, as
// a post from another process would; every post is recorded.
class FakeNamedNotifications final : public NamedNotificationCenter {
 public:
  explicit FakeNamedNotifications(EventLoop& loop) : loop_(loop), observers_(std::make_shared<Observers>()) {}

  void post(std::string_view name) override {
    posted_.emplace_back(name);
    loop_.post([weak = std::weak_ptr<Observers>(observers_), name = std::string(name)] {
      auto observers = weak.lock();
      if (!observers) return;
      auto snapshot = observers->byName[name];
      for (const auto& [id, observer] : snapshot) {
        const auto& current = observers->byName[name];
        if (std::ranges::any_of(current, [id = id](const auto& e) { return e.first == id; })) observer();
      }
    });
  }

  [[nodiscard]] Subscription observe(std::string name, std::function<void()> observer) override {
    const std::uint64_t id = observers_->nextId++;
    observers_->byName[name].emplace_back(id, std::move(observer));
    std::weak_ptr<Observers> weak = observers_;
    return Subscription([weak, name = std::move(name), id] {
      if (auto observers = weak.lock())
        std::erase_if(observers->byName[name], [id](const auto& e) { return e.first == id; });
    });
  }

  [[nodiscard]] const std::vector<std::string>& posted() const { return posted_; }
  [[nodiscard]] std::size_t postCount(std::string_view name) const {
    return static_cast<std::size_t>(std::ranges::count(posted_, name));
  }

 private:
  struct Observers {
    std::uint64_t nextId = 1;
    std::map<std::string, std::vector<std::pair<std::uint64_t, std::function<void()>>>> byName;
  };
  EventLoop& loop_;
  std::shared_ptr<Observers> observers_;
  std::vector<std::string> posted_;
};

}  // namespace norvik::testing
