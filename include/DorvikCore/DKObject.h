// DKObjectI: the root of the library's object interfaces. An object answers for the
// interfaces it implements by an integer interface id (IUID), counts its own references and
// deletes itself when the last one is released.
#pragma once

#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKTypes.h>

#include <cstdint>

// The interface every library object interface derives from. An implementation gives each
// interface it implements a distinct IUID and answers QueryInterface for each of them.
class DK_EXPORT DKObjectI {
public:
  static constexpr int IUID = 0x444B4F42; // The interface id of DKObjectI ("DKOB").

  virtual ~DKObjectI();

  // Adds a reference and returns the new count. Safe from any thread.
  virtual std::uint32_t AddRef() const = 0;
  // Drops a reference and returns the new count; the object deletes itself at 0, so it may not
  // be used after a Release that returned 0. Safe from any thread.
  virtual std::uint32_t Release() const = 0;
  // The interface id of the object's class.
  virtual int GetIUID() const = 0;
  // Whether the object implements the interface.
  virtual bool IsKindOf(int iuid) const = 0;
  // The object under the asked interface (a counted reference), null when it does not
  // implement it. DKQueryInterface gives it the interface's type.
  virtual DKSmartPtr<DKObjectI> QueryInterface(int iuid) const = 0;

protected:
  // For the implementing classes; a copy is a new object (its count is the implementation's).
  DKObjectI() = default;
  DKObjectI(const DKObjectI&) = default;
  DKObjectI& operator=(const DKObjectI&) = default;
};

// The object under interface T (a class derived from DKObjectI that names its T::IUID), or
// null when it does not implement it.
template <class T>
DKSmartPtr<T> DKQueryInterface(const DKObjectI* object) {
  if (!object)
    return DKSmartPtr<T>();
  DKSmartPtr<DKObjectI> found = object->QueryInterface(T::IUID);
  return DKSmartPtr<T>(static_cast<T*>(found.Get()));
}
