#include <velantrix/Exception.h>
#include <velantrix/Refcounted.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Velantrix::Exception;
using Velantrix::NonCopyable;
using Velantrix::Ref;
using Velantrix::RefCounted;
using Velantrix::RefCountedImplCopy;
using Velantrix::RefImpl;

class Counted : public RefImpl {
 public:
  explicit Counted(std::atomic<int>& deletions) : deletions_(deletions) {}
  ~Counted() override { ++deletions_; }
  int value = 7;

 private:
  std::atomic<int>& deletions_;
};

struct OnlyBase : NonCopyable {};
static_assert(!std::is_copy_constructible_v<OnlyBase>);
static_assert(!std::is_copy_assignable_v<OnlyBase>);
static_assert(std::is_empty_v<OnlyBase>);
static_assert(std::is_same_v<decltype(std::declval<RefImpl&>().referenceCount()), std::int32_t>);

class Refcounted : public testing::Test {
 protected:
  Counted* make() { return new Counted(deletions); }
  std::atomic<int> deletions{0};
};

Ref<Counted> holdingNull() { return Ref<Counted>(new RefCounted<Counted>(nullptr, false)); }

TEST_F(Refcounted, RefImpl_New_HasCountOne) {
  Counted* const object = make();
  EXPECT_EQ(object->referenceCount(), 1);
  delete object;
}

TEST_F(Refcounted, Holder_NotShared_AdoptsTheCount) {
  Counted* const object = make();
  {
    const RefCounted<Counted> holder(object, false);
    EXPECT_EQ(object->referenceCount(), 1);
    EXPECT_EQ(deletions, 0);
  }
  EXPECT_EQ(deletions, 1);
}

TEST_F(Refcounted, Holder_Shared_TakesACountOfItsOwn) {
  Counted* const object = make();
  const RefCounted<Counted> first(object, false);
  {
    const RefCounted<Counted> second(object, true);
    EXPECT_EQ(object->referenceCount(), 2);
  }
  EXPECT_EQ(object->referenceCount(), 1);
  EXPECT_EQ(deletions, 0);
}

TEST_F(Refcounted, Holder_SharedNull_Throws) {
  try {
    const RefCounted<Counted> holder(nullptr, true);
    FAIL() << "nothing was thrown";
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "RefCounted constructor for RefImpl failed.");
    EXPECT_EQ(e.code(), 4);
    EXPECT_EQ(e.file(), nullptr);
    EXPECT_EQ(e.line(), 0U);
  }
}

TEST_F(Refcounted, Holder_Equality_IsIdentity) {
  const RefCounted<Counted> a(make(), false);
  const RefCounted<Counted> sameAsA(a.get(), true);
  const RefCounted<Counted> b(make(), false);
  const RefCounted<Counted> null1(nullptr, false);
  const RefCounted<Counted> null2(nullptr, false);
  EXPECT_TRUE(a.operator==(sameAsA));
  EXPECT_FALSE(a.operator==(b));
  EXPECT_FALSE(a.operator==(null1));
  EXPECT_TRUE(null1.operator==(null2));
}

TEST_F(Refcounted, ImplCopy_TargetIsSource_ChangesNoCount) {
  auto* target = new RefCounted<Counted>(make(), false);
  const RefCounted<Counted>* const before = target;
  RefCountedImplCopy(target, before);
  EXPECT_EQ(target, before);
  EXPECT_EQ(target->get()->referenceCount(), 1);
  EXPECT_EQ(deletions, 0);
  delete target;
}

TEST_F(Refcounted, ImplCopy_AnotherHolder_ReleasesTheOldAndSharesTheNew) {
  auto* target = new RefCounted<Counted>(make(), false);
  const RefCounted<Counted> source(make(), false);
  RefCountedImplCopy(target, &source);
  EXPECT_EQ(deletions, 1);
  EXPECT_NE(target, &source);
  EXPECT_EQ(target->get(), source.get());
  EXPECT_EQ(source.get()->referenceCount(), 2);
  delete target;
  EXPECT_EQ(source.get()->referenceCount(), 1);
}

TEST_F(Refcounted, Ref_AssignedToItself_ChangesNoCount) {
  Ref<Counted> handle(make());
  const Ref<Counted>& alias = handle;
  handle = alias;
  EXPECT_EQ(handle->referenceCount(), 1);
  EXPECT_EQ(deletions, 0);
  Ref<Counted>& movable = handle;
  handle = std::move(movable);
  EXPECT_EQ(handle->referenceCount(), 1);
}

TEST_F(Refcounted, Ref_EmptyCopiedOntoFull_ReleasesTheObjectAndIsEmpty) {
  Ref<Counted> full(make());
  const Ref<Counted> empty;
  full = empty;
  EXPECT_EQ(deletions, 1);
  EXPECT_TRUE(full.empty());
  EXPECT_EQ(full.counted(), nullptr);
}

TEST_F(Refcounted, Ref_CopyOfOneThatHoldsNull_HoldsNullToo) {
  const Ref<Counted> original = holdingNull();
  const Ref<Counted> copy(original);
  Ref<Counted> assigned(make());
  assigned = original;
  for (const Ref<Counted>* handle : {&copy, static_cast<const Ref<Counted>*>(&assigned)}) {
    EXPECT_FALSE(handle->empty());
    EXPECT_EQ(handle->get(), nullptr);
    ASSERT_NE(handle->counted(), nullptr);
    EXPECT_NE(handle->counted(), original.counted());
    EXPECT_TRUE(handle->counted()->operator==(*original.counted()));
  }
}

TEST_F(Refcounted, Ref_HoldsNull_ArrowReturnsNullWithoutError) {
  Ref<Counted> handle = holdingNull();
  const Ref<Counted>& constant = handle;
  EXPECT_EQ(handle.operator->(), nullptr);
  EXPECT_EQ(constant.operator->(), nullptr);
}

TEST_F(Refcounted, Ref_HoldsAnObject_ReachesIt) {
  Ref<Counted> handle(make());
  const Ref<Counted>& constant = handle;
  EXPECT_EQ(handle->value, 7);
  EXPECT_EQ(constant->value, 7);
  EXPECT_EQ((*handle).value, 7);
}

TEST_F(Refcounted, Ref_Copy_SharesTheObjectInAHolderOfItsOwn) {
  const Ref<Counted> a(make());
  {
    const Ref<Counted> b(a);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_NE(a.counted(), b.counted());
    EXPECT_EQ(a->referenceCount(), 2);
  }
  EXPECT_EQ(a->referenceCount(), 1);
}

TEST_F(Refcounted, Ref_Moved_LeavesTheSourceEmpty) {
  Ref<Counted> a(make());
  Ref<Counted> b(std::move(a));
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): that is what is tested
  EXPECT_EQ(b->referenceCount(), 1);
  Ref<Counted> c(make());
  c = std::move(b);
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(c->referenceCount(), 1);
}

struct EmptyUse {
  const char* name;
  std::function<void()> use;
  const char* context;
  unsigned int line;
};

TEST_F(Refcounted, Ref_Empty_EachDereferenceThrowsWithItsOwnLine) {
  Ref<Counted> empty;
  const Ref<Counted>& constant = empty;
  const std::vector<EmptyUse> rows = {
      {"non-const arrow", [&] { static_cast<void>(empty.operator->()); }, "operator->", 359},
      {"const arrow", [&] { static_cast<void>(constant.operator->()); }, "operator->", 368},
      {"star", [&] { static_cast<void>(*empty); }, "operator*", 377},
  };
  for (const EmptyUse& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      row.use();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
      EXPECT_EQ(e.context(), row.context);
      EXPECT_EQ(e.code(), 1);
      EXPECT_STREQ(e.file(), "../../../velantrix/include2/VlxRefcounted");
      EXPECT_EQ(e.line(), row.line);
    }
  }
}

}  // namespace
