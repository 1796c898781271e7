#include <DorvikCore/DKObjectFactory.h>

#include "support/DKTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>

#if defined(_WIN32)
// The system's own COM root interface, which the library's header only declares there.
#  include <unknwn.h>
using ComIid = REFIID;
#  define DK_COM_CALL STDMETHODCALLTYPE
#else
using ComIid = const DKGuid&;
#  define DK_COM_CALL
#endif

namespace {

constexpr int kOrderClass = 4711;
constexpr int kOtherClass = 4712;

// A counted object that says which creator made it.
class Made : public DKObjectI {
public:
  explicit Made(int maker) : m_maker(maker) {}
  std::uint32_t AddRef() const override { return ++m_refs; }
  std::uint32_t Release() const override {
    const std::uint32_t left = --m_refs;
    if (left == 0)
      delete this;
    return left;
  }
  int GetIUID() const override { return IUID; }
  bool IsKindOf(int iuid) const override { return iuid == IUID; }
  DKSmartPtr<DKObjectI> QueryInterface(int iuid) const override {
    return IsKindOf(iuid) ? DKSmartPtr<DKObjectI>(const_cast<Made*>(this)) : nullptr;
  }
  int Maker() const { return m_maker; }

private:
  mutable std::atomic<std::uint32_t> m_refs{0};
  int m_maker;
};

DKObjectI* MakeFirst() { return new Made(1); }
DKObjectI* MakeSecond() { return new Made(2); }

// The maker of a created object (0 for none), releasing it.
int MakerOf(DKObjectI* object) {
  if (!object)
    return 0;
  DKSmartPtr<DKObjectI> held(object);
  return static_cast<Made*>(object)->Maker();
}

// A COM wrapper that remembers what it wraps.
struct Wrapper : IUnknown {
  explicit Wrapper(DKObjectI* wrapped) : object(wrapped) {}
  virtual ~Wrapper() = default;
  long DK_COM_CALL QueryInterface(ComIid, void** out) override {
    *out = nullptr;
    return -1;
  }
  unsigned long DK_COM_CALL AddRef() override { return 1; }
  unsigned long DK_COM_CALL Release() override { return 1; }
  DKObjectI* object;
};

IUnknown* Wrap(DKObjectI* object) { return new Wrapper(object); }

// Each case uses the factory between its own UseFactory and FreeFactory.
class DKCppObjectFactoryTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(DKCppObjectFactory::GetUsageCount(), 0u);
    DKCppObjectFactory::UseFactory();
  }
  void TearDown() override {
    DKCppObjectFactory::FreeFactory();
    EXPECT_EQ(DKCppObjectFactory::GetUsageCount(), 0u);
  }
};

TEST_F(DKCppObjectFactoryTest, ProxiesMadeBeforeOrAfterTheCreatorFollowEveryChange) {
  DKCppObjectGenericCreatorProxy proxy(kOrderClass);
  EXPECT_EQ(MakerOf(proxy.CreateObject()), 0);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 0);
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeFirst);
  EXPECT_EQ(MakerOf(proxy.CreateObject()), 1);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(proxy)), 1);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOtherClass)), 0);
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeSecond);
  EXPECT_EQ(MakerOf(proxy.CreateObject()), 2);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 2);

  // The creator given to UnregisterCreator is not compared with the registered one.
  DKCppObjectFactory::UnregisterCreator(kOrderClass, &MakeFirst);
  EXPECT_EQ(MakerOf(proxy.CreateObject()), 0);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 0);

  // A proxy made after the creator starts with it; an unbound one is not told.
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeFirst);
  DKCppObjectGenericCreatorProxy after(kOrderClass);
  EXPECT_EQ(after.GetCreator(), &MakeFirst);
  DKCppObjectFactory::UnregisterProxy(kOrderClass, &after);
  EXPECT_EQ(after.GetCreator(), nullptr);
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeSecond);
  EXPECT_EQ(after.GetCreator(), nullptr);
  DKCppObjectFactory::RegisterProxy(kOrderClass, &after);
  EXPECT_EQ(after.GetCreator(), &MakeSecond);
}

TEST_F(DKCppObjectFactoryTest, CopiesAndAssignmentsBindToTheirNewId) {
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeFirst);
  DKCppObjectFactory::RegisterCreator(kOtherClass, &MakeSecond);
  DKCppObjectGenericCreatorProxy order(kOrderClass);
  DKCppObjectGenericCreatorProxy copy(order);
  DKCppObjectGenericCreatorProxy other(kOtherClass);
  other = order;
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeSecond);
  EXPECT_EQ(MakerOf(copy.CreateObject()), 2);
  EXPECT_EQ(MakerOf(other.CreateObject()), 2);
  DKCppObjectFactory::UnregisterCreator(kOtherClass, nullptr);
  EXPECT_EQ(MakerOf(other.CreateObject()), 2) << "no longer bound to its first id";
  {
    DKCppObjectGenericCreatorProxy shortLived(kOrderClass);
  }
  // The destroyed proxy left the id's list: telling the list must not touch it.
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeFirst);
  EXPECT_EQ(MakerOf(order.CreateObject()), 1);
}

TEST(DKCppObjectFactoryUsageTest, TwoUsesNeedTwoFreesBoundProxiesKeepTheirCreatorAndOutsideUseNothingIsKept) {
  DKCppObjectFactory::UseFactory();
  DKCppObjectFactory::UseFactory();
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeFirst);
  DKCppObjectGenericCreatorProxy proxy(kOrderClass);
  DKCppObjectFactory::FreeFactory();
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 1);
  DKCppObjectFactory::FreeFactory();
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 0) << "outside use, creation gives null";
  EXPECT_EQ(MakerOf(proxy.CreateObject()), 1);

  // Outside use, registration is ignored and an unmatched free does nothing.
  DKCppObjectFactory::RegisterCreator(kOrderClass, &MakeSecond);
  DKCppObjectGenericCreatorProxy outside(kOrderClass);
  EXPECT_EQ(MakerOf(outside.CreateObject()), 0);
  DKCppObjectFactory::FreeFactory();
  DKCppObjectFactory::UseFactory();
  EXPECT_EQ(DKCppObjectFactory::GetUsageCount(), 1u);
  EXPECT_EQ(MakerOf(DKCppObjectFactory::CreateObject(kOrderClass)), 0) << "a new registry starts empty";
  DKCppObjectFactory::FreeFactory();
}

TEST(DKCppObjectFactoryUsageTest, ThreadsThatHoldTheLockShareTheFactory) {
  DKCppObjectFactory::UseFactory();
  std::atomic<int> made{0};
  RunOnThreads(4, 200, [&made](int t, int i) {
    DKCppObjectGenericCreatorProxy proxy(kOrderClass + t % 2);
    std::lock_guard guard(DKCppObjectFactory::GetCriticalSection());
    DKCppObjectFactory::RegisterCreator(kOrderClass + t % 2, i % 2 ? &MakeFirst : &MakeSecond);
    made += MakerOf(proxy.CreateObject()) != 0;
  });
  EXPECT_EQ(made.load(), 800);
  DKCppObjectFactory::FreeFactory();
}

TEST(DKComFlyweightFactoryTest, WrapsObjectsThroughTheRegisteredCreator) {
  DKComFlyweightFactory::UseFactory();
  Made object(7);
  DKComFlyweightGenericCreatorProxy proxy(kOrderClass);
  EXPECT_EQ(proxy.CreateFlyweight(&object), nullptr);
  DKComFlyweightFactory::RegisterCreator(kOrderClass, &Wrap);
  IUnknown* wrapper = proxy.CreateFlyweight(&object);
  ASSERT_NE(wrapper, nullptr);
  EXPECT_EQ(static_cast<Wrapper*>(wrapper)->object, &object);
  delete static_cast<Wrapper*>(wrapper);
  IUnknown* direct = DKComFlyweightFactory::CreateFlyweight(kOrderClass, &object);
  ASSERT_NE(direct, nullptr);
  delete static_cast<Wrapper*>(direct);
  DKComFlyweightFactory::UnregisterCreator(kOrderClass, &Wrap);
  EXPECT_EQ(proxy.CreateFlyweight(&object), nullptr);
  EXPECT_EQ(DKComFlyweightFactory::CreateFlyweight(kOrderClass, &object), nullptr);
  DKComFlyweightFactory::FreeFactory();
}

} // namespace
