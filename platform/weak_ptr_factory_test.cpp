#include "platform/weak_ptr_factory.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>

namespace norvik {
namespace {

struct Owner {
  int calls = 0;
  WeakPtrFactory<Owner> weakFactory{this};
};

TEST(WeakPtrFactory, ACallbackThatOutlivesItsOwnerDoesNothing) {
  std::function<void()> later;
  {
    Owner owner;
    later = [weak = owner.weakFactory.weak()] {
      if (auto* self = weak.lock()) ++self->calls;
    };
    later();
    EXPECT_EQ(owner.calls, 1);
  }
  later();  // must not touch the destroyed owner
}

TEST(WeakPtrFactory, APointerFromAnEarlierCheckDoesNotKeepTheCheckPassing) {
  std::optional<Owner> owner(std::in_place);
  auto weak = owner->weakFactory.weak();
  auto* earlier = weak.lock();
  ASSERT_EQ(earlier, &*owner);
  owner.reset();
  EXPECT_EQ(weak.lock(), nullptr) << "holding a result of lock() must not hold the owner's anchor";
}

TEST(WeakPtrFactory, InvalidateAllCutsEveryPointerHandedOutSoFar) {
  Owner owner;
  auto before = owner.weakFactory.weak();
  owner.weakFactory.invalidateAll();
  EXPECT_EQ(before.lock(), nullptr);
  EXPECT_EQ(owner.weakFactory.weak().lock(), &owner);
}

}  // namespace
}  // namespace norvik
