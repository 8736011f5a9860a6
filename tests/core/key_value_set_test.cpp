#include "core/key_value_set.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
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

// The indexed lookups must find exactly what a front-to-back walk of the
// same list finds, whatever mix of writes came before: appends, in-place
// replacements, removals at any position (which renumber the index),
// duplicates, and keys whose object is gone while a new object takes its
// hash.
TEST(IndexedKeyValueSetTest, LookupsAgreeWithAWalkOfTheListAfterAnyWrites) {
  using Key = WeakRef<Handle>;
  KeyValueSet<Key, std::string> set(
      [](const Key& a, const Key& b) {
        auto x = a.ref(), y = b.ref();
        return x && y && x->target == y->target;
      },
      [](const Key& k) -> std::size_t {
        auto x = k.ref();
        return x ? static_cast<std::size_t>(x->target % 4) : 0;  // collisions on purpose
      },
      [](const std::string& v) { return std::string_view(v); });

  std::mt19937 random(7);
  auto pick = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
  std::vector<HandlePtr> live(12);  // by target; null while the object is gone
  auto handleFor = [&](std::size_t t) {
    if (!live[t]) live[t] = std::make_shared<Handle>(Handle{static_cast<int>(t)});
    return live[t];
  };
  int serial = 0;
  for (int step = 0; step < 1500; ++step) {
    const auto count = static_cast<std::size_t>(set.list().count());
    const std::size_t t = pick(live.size());
    const std::string id = "v" + std::to_string(serial++ % 40);  // ids repeat too
    switch (pick(6)) {
      case 0: case 1: set.set(Key(handleFor(t)), id); break;
      case 2: set.list().append({Key(handleFor(t)), id}); break;
      case 3: if (count) set.list().set(static_cast<std::ptrdiff_t>(pick(count)), {Key(handleFor(t)), id}); break;
      case 4: if (count) set.list().remove(static_cast<std::ptrdiff_t>(pick(count))); break;
      case 5:
        if (pick(2)) live[t].reset();
        else set.removeWhere([](const auto& entry) { return entry.key.expired(); });
        break;
    }
    const auto entries = set.list().unthreaded();
    for (std::size_t target = 0; target < live.size(); ++target) {
      const HandlePtr h = std::make_shared<Handle>(Handle{static_cast<int>(target)});
      std::ptrdiff_t expected = -1;
      for (std::size_t i = 0; i < entries.size() && expected < 0; ++i) {
        if (auto k = entries[i].key.ref(); k && k->target == h->target) expected = static_cast<std::ptrdiff_t>(i);
      }
      if (!live[target]) expected = -1;  // a gone object's entries match nothing
      const Key wanted(live[target] ? live[target] : h);
      ASSERT_EQ(set.indexOf(wanted), expected) << "step " << step << ", target " << target;
    }
    for (int v = 0; v < 40; ++v) {
      const std::string wanted = "v" + std::to_string(v);
      std::ptrdiff_t expected = -1;
      for (std::size_t i = 0; i < entries.size() && expected < 0; ++i) {
        if (entries[i].value == wanted) expected = static_cast<std::ptrdiff_t>(i);
      }
      auto found = set.findById(wanted);
      ASSERT_EQ(found ? found->position : -1, expected) << "step " << step << ", id " << wanted;
    }
  }
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
