// Object factories: process-wide registries from an integer class id to a creator function,
// so that code creates objects of classes it does not link to. A module registers the creators
// of its classes while it is loaded; users create by id, or hold a creator proxy bound to an
// id, which always sees the creator registered for that id at the moment.
//
//   DKCppObjectFactory   creator: no arguments -> DKObjectI*            (CreateObject)
//   DKComFlyweightFactory creator: DKObjectI* -> IUnknown*               (CreateFlyweight)
//
//   DKCppObjectFactory::UseFactory();
//   DKCppObjectFactory::RegisterCreator(OrderClassId, &Order::Create);
//   DKCppObjectGenericCreatorProxy orders(OrderClassId);
//   DKObjectI* order = orders.CreateObject();     // null while no creator is registered
//   ...
//   DKCppObjectFactory::FreeFactory();
//
// A factory works between UseFactory and the matching FreeFactory (the calls are counted);
// outside that, registration does nothing and creation returns null. The registry operations
// and the create operations do not lock: code that uses a factory from several threads holds
// GetCriticalSection() around its calls. Making, copying and destroying a proxy take the lock.
#pragma once

#include <DorvikCore/DKGuid.h>
#include <DorvikCore/DKObject.h>
#include <DorvikCore/DKSync.h>
#include <DorvikCore/DKTypes.h>

#include <cstdint>
#include <map>
#include <vector>

#if defined(_WIN32)
struct IUnknown;
#else
// The root interface of COM objects. Linux has no COM: this is the library's own minimal form,
// with the same three operations.
struct IUnknown {
  // Stores the object under the interface iid in *object (a counted reference) and returns 0;
  // a non-zero result and a null *object when the object does not implement it.
  virtual long QueryInterface(const DKGuid& iid, void** object) = 0;
  // Adds a reference; returns the new count.
  virtual unsigned long AddRef() = 0;
  // Drops a reference and returns the new count; the object deletes itself at 0.
  virtual unsigned long Release() = 0;

protected:
  ~IUnknown() = default;
};
#endif

template <class Creator>
class DKGenericCreatorProxy;

// The registry both factories are built on, one per creator signature. Its operations are
// defined in the library only (instantiated there for the two factories).
template <class Creator>
class DKObjectFactoryBase {
public:
  typedef DKGenericCreatorProxy<Creator> Proxy; // The proxy type of this registry.
  // What the registry knows of one class id.
  struct TypeInfo {
    Creator creator = nullptr;   // The registered creator; null for none.
    std::vector<Proxy*> proxies; // The proxies bound to the id, in order of registration.
  };

  // Counted: the first call makes the registry, the matching last FreeFactory destroys it.
  static void UseFactory();
  static void FreeFactory();

  // Sets the id's creator and hands it to every proxy bound to the id.
  static void RegisterCreator(int classId, Creator creator);
  // Clears the id's creator and that of every proxy bound to it (whatever creator is given).
  static void UnregisterCreator(int classId, Creator creator);
  // Binds the proxy to the id and gives it the id's current creator.
  static void RegisterProxy(int classId, Proxy* proxy);
  // Unbinds the proxy and clears its creator.
  static void UnregisterProxy(int classId, Proxy* proxy);

  // The factory's lock (recursive), for a sequence of calls that must not be interleaved.
  static DKCriticalSection& GetCriticalSection();
  // How many UseFactory calls are not matched by FreeFactory yet.
  static std::uint32_t GetUsageCount();

protected:
  // The id's entry, made (empty) when missing; null while the factory is not in use.
  static TypeInfo* GetTypeInfo(int classId);

private:
  friend class DKGenericCreatorProxy<Creator>;

  static std::map<int, TypeInfo>* glbTypeInfosP;
  static std::uint32_t glbUsageCount;
  static DKCriticalSection* glbCriticalSection;
};

// Bound to one class id for its whole life; sees the creator currently registered for the id.
// A copy is bound to the same id; assignment rebinds to the other's id.
template <class Creator>
class DKGenericCreatorProxy {
public:
  // Binds the proxy to classId (a copy: to other's id) and takes the id's current creator. A
  // proxy made while the factory is not in use is never bound: its creator stays null.
  explicit DKGenericCreatorProxy(int classId);
  DKGenericCreatorProxy(const DKGenericCreatorProxy& other);
  DKGenericCreatorProxy& operator=(const DKGenericCreatorProxy& other);
  ~DKGenericCreatorProxy();

  // The class id the proxy is bound to. Defined in the library, as every member: the DLL
  // exports no inline member of an exported instantiation, so a client's call would find none.
  int GetClassId() const noexcept;
  // Null while no creator is registered for the id.
  Creator GetCreator() const noexcept;

private:
  friend class DKObjectFactoryBase<Creator>;

  int m_classId;
  Creator m_creator;
};

// A creator of library objects: returns a new object (the caller owns it), or null.
typedef DKObjectI* (*DKCppObjectCreator)();
// A creator of COM wrappers: returns a new wrapper of object (the caller owns it), or null.
typedef IUnknown* (*DKComFlyweightCreator)(DKObjectI* object);

extern template class DK_EXPORT DKObjectFactoryBase<DKCppObjectCreator>;
extern template class DK_EXPORT DKGenericCreatorProxy<DKCppObjectCreator>;
extern template class DK_EXPORT DKObjectFactoryBase<DKComFlyweightCreator>;
extern template class DK_EXPORT DKGenericCreatorProxy<DKComFlyweightCreator>;

class DKCppObjectGenericCreatorProxy;
class DKComFlyweightGenericCreatorProxy;

// Makes library objects.
class DK_EXPORT DKCppObjectFactory : public DKObjectFactoryBase<DKCppObjectCreator> {
public:
  typedef DKCppObjectCreator Creator; // The creator type.
  // A new object from the id's creator; null when there is none.
  static DKObjectI* CreateObject(int classId);
  // A new object from the proxy's creator; null when it has none.
  static DKObjectI* CreateObject(const DKCppObjectGenericCreatorProxy& proxy);
};

// A proxy of DKCppObjectFactory.
class DK_EXPORT DKCppObjectGenericCreatorProxy : public DKGenericCreatorProxy<DKCppObjectCreator> {
public:
  // Bound to a class id, as DKGenericCreatorProxy is.
  using DKGenericCreatorProxy::DKGenericCreatorProxy;
  // A new object, or null while no creator is registered for the id.
  DKObjectI* CreateObject() const;
};

// Makes COM wrappers of library objects.
class DK_EXPORT DKComFlyweightFactory : public DKObjectFactoryBase<DKComFlyweightCreator> {
public:
  typedef DKComFlyweightCreator Creator; // The creator type.
  // A new wrapper of object from the id's creator; null when there is none.
  static IUnknown* CreateFlyweight(int classId, DKObjectI* object);
  // A new wrapper of object from the proxy's creator; null when it has none.
  static IUnknown* CreateFlyweight(const DKComFlyweightGenericCreatorProxy& proxy, DKObjectI* object);
};

// A proxy of DKComFlyweightFactory.
class DK_EXPORT DKComFlyweightGenericCreatorProxy : public DKGenericCreatorProxy<DKComFlyweightCreator> {
public:
  // Bound to a class id, as DKGenericCreatorProxy is.
  using DKGenericCreatorProxy::DKGenericCreatorProxy;
  // A new wrapper of object, or null while no creator is registered for the id.
  IUnknown* CreateFlyweight(DKObjectI* object) const;
};
