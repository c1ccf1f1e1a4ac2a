#pragma once

#include <memory>

namespace norvik {

// Hands out weak pointers to an object that is not itself owned by a shared_ptr. Completion
// handlers capture weak() and do nothing once the owner is gone:
//
//   transport.send(request, [weak = weakFactory_.weak()](HttpResult r) {
//     if (auto self = weak.lock()) self->onResponse(std::move(r));
//   });
//
// Declare the factory as the owner's last member so that it dies first. The pointers are for the
// owner's own thread: lock() tells whether the owner is still alive, it does not keep it alive.
template <class T>
class WeakPtrFactory {
 public:
  explicit WeakPtrFactory(T* owner) : anchor_(std::make_shared<char>()), owner_(owner) {}
  WeakPtrFactory(const WeakPtrFactory&) = delete;
  WeakPtrFactory& operator=(const WeakPtrFactory&) = delete;

  [[nodiscard]] std::weak_ptr<T> weak() const { return std::shared_ptr<T>(anchor_, owner_); }

  // Every weak pointer handed out so far stops resolving.
  void invalidateAll() { anchor_ = std::make_shared<char>(); }

 private:
  std::shared_ptr<char> anchor_;
  T* owner_;
};

}  // namespace norvik
