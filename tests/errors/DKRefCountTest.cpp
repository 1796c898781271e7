#include <DorvikCore/DKRefCount.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Counts its own destructions, and may hold another counted object.
class Probe : public DKRefCount {
public:
  explicit Probe(std::atomic<int>* destroyed) : m_destroyed(destroyed) {}
  ~Probe() override { m_destroyed->fetch_add(1); }
  DKSmartPtr<Probe> child;

private:
  std::atomic<int>* m_destroyed;
};

TEST(DKRefCountTest, CountsFromZeroAndDeletesOnLastRelease) {
  std::atomic<int> destroyed{0};
  Probe* p = new Probe(&destroyed);
  EXPECT_EQ(p->NbRef(), 0u);
  EXPECT_EQ(p->AddRef(), 1u);
  EXPECT_EQ(p->AddRef(), 2u);
  EXPECT_EQ(p->Release(), 1u);
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(p->Release(), 0u);
  EXPECT_EQ(destroyed, 1);
}

TEST(DKRefCountTest, CopyOfACountedObjectStartsItsOwnCount) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> a(new Probe(&destroyed));
  DKSmartPtr<Probe> b(new Probe(*a));
  EXPECT_EQ(a->NbRef(), 1u);
  EXPECT_EQ(b->NbRef(), 1u);
  *b = *a; // assignment leaves both counts alone
  EXPECT_EQ(a->NbRef(), 1u);
  EXPECT_EQ(b->NbRef(), 1u);
}

TEST(DKSmartPtrTest, CopyMoveClearAndNullAssignment) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> a(new Probe(&destroyed));
  {
    DKSmartPtr<Probe> b = a;
    EXPECT_EQ(a->NbRef(), 2u);
    EXPECT_TRUE(a == b);
    DKSmartPtr<Probe> c = std::move(b);
    EXPECT_TRUE(b.IsNull());
    EXPECT_EQ(a->NbRef(), 2u);
    c = nullptr;
    EXPECT_TRUE(c.IsNull());
    EXPECT_EQ(a->NbRef(), 1u);
  }
  a.Clear();
  EXPECT_TRUE(a.IsNull());
  EXPECT_FALSE(a);
  EXPECT_EQ(destroyed, 1);
}

TEST(DKSmartPtrTest, AssignmentTakesTheNewObjectBeforeReleasingTheOld) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> holder(new Probe(&destroyed));
  holder->child = new Probe(&destroyed);
  // The child lives only through the parent that the assignment releases.
  holder = holder->child.Get();
  EXPECT_EQ(destroyed, 1);
  ASSERT_FALSE(holder.IsNull());
  EXPECT_EQ(holder->NbRef(), 1u);

  const DKSmartPtr<Probe>& same = holder;
  holder = same; // self-assignment keeps the object
  EXPECT_EQ(destroyed, 1);
  holder = holder.Get();
  EXPECT_EQ(destroyed, 1);
  holder.Clear();
  EXPECT_EQ(destroyed, 2);
}

TEST(DKSmartPtrTest, PointerToConstIsBuiltAndAssignedFromSmartPtr) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> p(new Probe(&destroyed));
  DKSmartPtrToConst<Probe> c(p);
  EXPECT_EQ(c.Get(), p.Get());
  EXPECT_EQ(p->NbRef(), 2u);
  DKSmartPtrToConst<Probe> d;
  d = p;
  EXPECT_EQ(p->NbRef(), 3u);
  p.Clear();
  c.Clear();
  EXPECT_EQ(destroyed, 0);
  d = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(DKSmartPtrTest, CopiesOnManyThreadsKeepTheCountExact) {
  std::atomic<int> destroyed{0};
  DKSmartPtr<Probe> shared(new Probe(&destroyed));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&shared] {
      for (int i = 0; i < 20000; ++i) {
        DKSmartPtr<Probe> copy = shared;
        DKSmartPtrToConst<Probe> constCopy(copy);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(shared->NbRef(), 1u);
  EXPECT_EQ(destroyed, 0);
  shared.Clear();
  EXPECT_EQ(destroyed, 1);
}

} // namespace
