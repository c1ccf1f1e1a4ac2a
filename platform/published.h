#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace norvik {

// Ends a subscription when destroyed (or reset). Movable, not copyable.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) {
      reset();
      cancel_ = std::exchange(other.cancel_, nullptr);
    }
    return *this;
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { reset(); }

  void reset() {
    if (auto cancel = std::exchange(cancel_, nullptr)) cancel();
  }

 private:
  std::function<void()> cancel_;
};

// An observable value on the main loop: read the current value, subscribe to changes. Values
// that can be compared notify only when they change; others notify on every set. Subscribers may
// subscribe or unsubscribe (themselves or others) while being notified.
template <class T>
class Published {
 public:
  using Observer = std::function<void(const T&)>;

  Published() : Published(T{}) {}
  explicit Published(T initial) : value_(std::move(initial)), observers_(std::make_shared<Observers>()) {}
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;

  [[nodiscard]] const T& get() const { return value_; }

  void set(T value) {
    if constexpr (std::equality_comparable<T>) {
      if (value == value_) return;
    }
    value_ = std::move(value);
    notify();
  }

  // The observer is called for every later change; it is not called with the current value.
  [[nodiscard]] Subscription subscribe(Observer observer) {
    const std::uint64_t id = observers_->nextId++;
    observers_->entries.push_back({id, std::make_shared<Observer>(std::move(observer))});
    std::weak_ptr<Observers> weak = observers_;
    return Subscription([weak, id] {
      if (auto observers = weak.lock()) std::erase_if(observers->entries, [id](const auto& e) { return e.id == id; });
    });
  }

  [[nodiscard]] std::size_t observerCount() const { return observers_->entries.size(); }

 private:
  struct Entry {
    std::uint64_t id;
    std::shared_ptr<Observer> observer;
  };
  struct Observers {
    std::uint64_t nextId = 1;
    std::vector<Entry> entries;
  };

  void notify() {
    // A snapshot of the ids: observers removed during the round are skipped, added ones wait.
    std::vector<std::uint64_t> ids;
    ids.reserve(observers_->entries.size());
    for (const auto& e : observers_->entries) ids.push_back(e.id);
    auto keepAlive = observers_;
    for (auto id : ids) {
      auto it = std::find_if(keepAlive->entries.begin(), keepAlive->entries.end(),
                             [id](const auto& e) { return e.id == id; });
      if (it == keepAlive->entries.end()) continue;
      auto observer = it->observer;  // survives its own unsubscription
      (*observer)(value_);
    }
  }

  T value_;
  std::shared_ptr<Observers> observers_;
};

// An event without a lasting value (the in-process notifications): every emit reaches every
// subscriber, on the thread that emits (the main loop).
template <class... Args>
class Signal {
 public:
  using Observer = std::function<void(const Args&...)>;

  Signal() : observers_(std::make_shared<Observers>()) {}
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void emit(const Args&... args) {
    auto keepAlive = observers_;
    auto snapshot = keepAlive->entries;  // observers added during the round wait for the next
    for (const auto& entry : snapshot) {
      const bool stillSubscribed = std::any_of(keepAlive->entries.begin(), keepAlive->entries.end(),
                                               [&](const auto& e) { return e.id == entry.id; });
      if (stillSubscribed) (*entry.observer)(args...);
    }
  }

  [[nodiscard]] Subscription subscribe(Observer observer) {
    const std::uint64_t id = observers_->nextId++;
    observers_->entries.push_back({id, std::make_shared<Observer>(std::move(observer))});
    std::weak_ptr<Observers> weak = observers_;
    return Subscription([weak, id] {
      if (auto observers = weak.lock()) std::erase_if(observers->entries, [id](const auto& e) { return e.id == id; });
    });
  }

 private:
  struct Entry {
    std::uint64_t id;
    std::shared_ptr<Observer> observer;
  };
  struct Observers {
    std::uint64_t nextId = 1;
    std::vector<Entry> entries;
  };
  std::shared_ptr<Observers> observers_;
};

}  // namespace norvik
