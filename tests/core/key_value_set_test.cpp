#include "core/key_value_set.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/weak_ref.h"

namespace appex {
namespace {

// Handles that are equal when they name the same underlying object, like
// browser tab handles.
struct Handle {
  int target;
};
using HandlePtr = std::shared_ptr<Handle>;

class KeyValueSetTest : public ::testing::Test {
 protected:
  int comparisons = 0;
  KeyValueSet<HandlePtr, std::string> set{[this](const HandlePtr& a, const HandlePtr& b) {
    ++comparisons;
    return a->target == b->target;
  }};
  static HandlePtr handle(int t) { return std::make_shared<Handle>(Handle{t}); }
};

TEST_F(KeyValueSetTest, EmptySetFindsNothingWithoutComparing) {
  EXPECT_EQ(set.indexOf(handle(1)), -1);
  EXPECT_FALSE(set.get(handle(1)).has_value());
  EXPECT_EQ(comparisons, 0);
}

TEST_F(KeyValueSetTest, SetAppendsNewKeysAndReplacesInPlace) {
  set.set(handle(1), "one");
  set.set(handle(2), "two");
  auto newer = handle(1);  // another handle to the same object
  set.set(newer, "uno");
  auto entries = set.list().unthreaded();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].value, "uno");
  EXPECT_EQ(entries[0].key, newer) << "the new key takes the stored one's place";
  EXPECT_EQ(entries[1].value, "two");
  EXPECT_EQ(set.indexOf(handle(2)), 1);
}

TEST_F(KeyValueSetTest, FirstOfTwoMatchingEntriesWins) {
  set.list().append({handle(5), "first"});
  set.list().append({handle(5), "second"});
  EXPECT_EQ(set.get(handle(5))->value, "first");
  EXPECT_EQ(set.indexOf(handle(5)), 0);
}

TEST(WeakRefTest, ReadsAsNothingOnceTheObjectIsGone) {
  auto object = std::make_shared<int>(3);
  WeakRef<int> ref(object);
  EXPECT_EQ(*ref.ref(), 3);
  object.reset();
  EXPECT_EQ(ref.ref(), nullptr);
}

}  // namespace
}  // namespace appex
