// The registry of the object factories, and the two factories built on it.
#include <DorvikCore/DKObjectFactory.h>

#include <algorithm>
#include <mutex>
#include <utility>

namespace {

// One lock per creator signature, for the whole process: a UseFactory racing the last
// FreeFactory never meets a destroyed lock.
template <class Creator>
DKCriticalSection& FactoryLock() {
  static DKCriticalSection* const lock = new DKCriticalSection;
  return *lock;
}

} // namespace

template <class Creator>
std::map<int, typename DKObjectFactoryBase<Creator>::TypeInfo>* DKObjectFactoryBase<Creator>::glbTypeInfosP = nullptr;
template <class Creator>
std::uint32_t DKObjectFactoryBase<Creator>::glbUsageCount = 0;
template <class Creator>
DKCriticalSection* DKObjectFactoryBase<Creator>::glbCriticalSection = &FactoryLock<Creator>();

template <class Creator>
void DKObjectFactoryBase<Creator>::UseFactory() {
  std::lock_guard guard(GetCriticalSection());
  if (glbUsageCount == 0)
    glbTypeInfosP = new std::map<int, TypeInfo>;
  ++glbUsageCount;
}

template <class Creator>
void DKObjectFactoryBase<Creator>::FreeFactory() {
  std::map<int, TypeInfo>* destroyed = nullptr;
  {
    std::lock_guard guard(GetCriticalSection());
    if (glbUsageCount == 0)
      return;
    if (--glbUsageCount == 0)
      destroyed = std::exchange(glbTypeInfosP, nullptr);
  }
  // Proxies still bound keep the creator they had.
  delete destroyed;
}

template <class Creator>
DKCriticalSection& DKObjectFactoryBase<Creator>::GetCriticalSection() {
  return FactoryLock<Creator>();
}

template <class Creator>
std::uint32_t DKObjectFactoryBase<Creator>::GetUsageCount() {
  std::lock_guard guard(GetCriticalSection());
  return glbUsageCount;
}

template <class Creator>
typename DKObjectFactoryBase<Creator>::TypeInfo* DKObjectFactoryBase<Creator>::GetTypeInfo(int classId) {
  return glbTypeInfosP ? &(*glbTypeInfosP)[classId] : nullptr;
}

template <class Creator>
void DKObjectFactoryBase<Creator>::RegisterCreator(int classId, Creator creator) {
  if (TypeInfo* info = GetTypeInfo(classId)) {
    info->creator = creator;
    for (Proxy* proxy : info->proxies)
      proxy->m_creator = creator;
  }
}

template <class Creator>
void DKObjectFactoryBase<Creator>::UnregisterCreator(int classId, Creator) {
  if (TypeInfo* info = GetTypeInfo(classId)) {
    for (Proxy* proxy : info->proxies)
      proxy->m_creator = nullptr;
    info->creator = nullptr;
  }
}

template <class Creator>
void DKObjectFactoryBase<Creator>::RegisterProxy(int classId, Proxy* proxy) {
  TypeInfo* info = GetTypeInfo(classId);
  if (!info || !proxy)
    return;
  info->proxies.push_back(proxy);
  proxy->m_creator = info->creator;
}

template <class Creator>
void DKObjectFactoryBase<Creator>::UnregisterProxy(int classId, Proxy* proxy) {
  TypeInfo* info = GetTypeInfo(classId);
  if (!info || !proxy)
    return;
  const auto it = std::find(info->proxies.begin(), info->proxies.end(), proxy);
  if (it != info->proxies.end())
    info->proxies.erase(it);
  proxy->m_creator = nullptr;
}

// A proxy binds and unbinds itself under the factory's lock: its construction and destruction
// happen where a caller cannot easily hold the lock around them.
template <class Creator>
DKGenericCreatorProxy<Creator>::DKGenericCreatorProxy(int classId) : m_classId(classId), m_creator(nullptr) {
  std::lock_guard guard(DKObjectFactoryBase<Creator>::GetCriticalSection());
  DKObjectFactoryBase<Creator>::RegisterProxy(classId, this);
}

template <class Creator>
DKGenericCreatorProxy<Creator>::DKGenericCreatorProxy(const DKGenericCreatorProxy& other)
    : DKGenericCreatorProxy(other.m_classId) {}

template <class Creator>
DKGenericCreatorProxy<Creator>& DKGenericCreatorProxy<Creator>::operator=(const DKGenericCreatorProxy& other) {
  std::lock_guard guard(DKObjectFactoryBase<Creator>::GetCriticalSection());
  if (this != &other) {
    DKObjectFactoryBase<Creator>::UnregisterProxy(m_classId, this);
    m_classId = other.m_classId;
    m_creator = other.m_creator;
    DKObjectFactoryBase<Creator>::RegisterProxy(m_classId, this);
  }
  return *this;
}

template <class Creator>
DKGenericCreatorProxy<Creator>::~DKGenericCreatorProxy() {
  std::lock_guard guard(DKObjectFactoryBase<Creator>::GetCriticalSection());
  DKObjectFactoryBase<Creator>::UnregisterProxy(m_classId, this);
  m_creator = nullptr;
}

template <class Creator>
int DKGenericCreatorProxy<Creator>::GetClassId() const noexcept {
  return m_classId;
}

template <class Creator>
Creator DKGenericCreatorProxy<Creator>::GetCreator() const noexcept {
  return m_creator;
}

template class DKObjectFactoryBase<DKCppObjectCreator>;
template class DKGenericCreatorProxy<DKCppObjectCreator>;
template class DKObjectFactoryBase<DKComFlyweightCreator>;
template class DKGenericCreatorProxy<DKComFlyweightCreator>;

// ---------------------------------------------------------------------------------------------

DKObjectI* DKCppObjectFactory::CreateObject(int classId) {
  const TypeInfo* info = GetTypeInfo(classId);
  return info && info->creator ? info->creator() : nullptr;
}

DKObjectI* DKCppObjectFactory::CreateObject(const DKCppObjectGenericCreatorProxy& proxy) {
  return proxy.GetCreator() ? proxy.GetCreator()() : nullptr;
}

DKObjectI* DKCppObjectGenericCreatorProxy::CreateObject() const { return DKCppObjectFactory::CreateObject(*this); }

IUnknown* DKComFlyweightFactory::CreateFlyweight(int classId, DKObjectI* object) {
  const TypeInfo* info = GetTypeInfo(classId);
  return info && info->creator ? info->creator(object) : nullptr;
}

IUnknown* DKComFlyweightFactory::CreateFlyweight(const DKComFlyweightGenericCreatorProxy& proxy, DKObjectI* object) {
  return proxy.GetCreator() ? proxy.GetCreator()(object) : nullptr;
}

IUnknown* DKComFlyweightGenericCreatorProxy::CreateFlyweight(DKObjectI* object) const {
  return DKComFlyweightFactory::CreateFlyweight(*this, object);
}
