#pragma once

#include <memory>

namespace norvik {

// A pointer that tells whether its owner is still alive. lock() gives the owner, or nullptr once
// it is gone. It never keeps the owner alive, and a raw pointer cannot outlive the check that
// produced it by accident: lock() again in every callback that runs later.
template <class T>
class WeakPtr {
 public:
  WeakPtr() = default;
  WeakPtr(std::weak_ptr<char> anchor, T* owner) : anchor_(std::move(anchor)), owner_(owner) {}

  [[nodiscard]] T* lock() const { return anchor_.expired() ? nullptr : owner_; }
  explicit operator bool() const { return lock() != nullptr; }

 private:
  std::weak_ptr<char> anchor_;
  T* owner_ = nullptr;
};

// Hands out weak pointers to an object that is not itself owned by a shared_ptr. Completion
// handlers capture weak() and do nothing once the owner is gone:
//
//   transport.send(request, [weak = weakFactory_.weak()](HttpResult r) {
//     if (auto* self = weak.lock()) self->onResponse(std::move(r));
//   });
//
// Declare the factory as the owner's last member so that it dies first. The pointers are for the
// owner's own thread.
template <class T>
class WeakPtrFactory {
 public:
  explicit WeakPtrFactory(T* owner) : anchor_(std::make_shared<char>()), owner_(owner) {}
  WeakPtrFactory(const WeakPtrFactory&) = delete;
  WeakPtrFactory& operator=(const WeakPtrFactory&) = delete;

  [[nodiscard]] WeakPtr<T> weak() const { return WeakPtr<T>(anchor_, owner_); }

  // Every weak pointer handed out so far stops resolving.
  void invalidateAll() { anchor_ = std::make_shared<char>(); }

 private:
  std::shared_ptr<char> anchor_;
  T* owner_;
};

}  // namespace norvik
