// Intrusive reference counting and the smart pointers that hold counted objects.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <type_traits>
#include <utility>

// Base of every counted object. The count starts at 0; the object deletes itself when a
// Release brings the count back to 0. Counting is atomic, so holders may live on different
// threads. A copied object is a new object with a count of its own.
class DK_EXPORT DKRefCount {
public:
  // A count of 0; a copy starts at 0 too, and assignment leaves the count as it is.
  DKRefCount() noexcept : m_refs(0) {}
  DKRefCount(const DKRefCount&) noexcept : m_refs(0) {}
  DKRefCount& operator=(const DKRefCount&) noexcept { return *this; }
  virtual ~DKRefCount();

  // Adds a reference; returns the new count.
  std::uint32_t AddRef() const noexcept { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  // Drops a reference and returns the new count; at 0 the object deletes itself and may not be
  // used any more.
  std::uint32_t Release() const noexcept {
    const std::uint32_t n = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (n == 0)
      delete this;
    return n;
  }
  // The current count; only a hint while other threads hold references.
  std::uint32_t NbRef() const noexcept { return m_refs.load(std::memory_order_relaxed); }

private:
  mutable std::atomic<std::uint32_t> m_refs;
};

// Holds one counted object: construction and copy add a reference, destruction and Clear
// release it. T may be const-qualified (see DKSmartPtrToConst).
template <class T>
class DKSmartPtr {
public:
  typedef T element_type; // The type of the object held.

  // Null.
  DKSmartPtr() noexcept = default;
  // Holds p (a reference is added); also from nullptr or a literal 0: one overload takes every
  // null-pointer constant.
  DKSmartPtr(T* p) noexcept : m_p(p) { if (m_p) m_p->AddRef(); }
  // Holds the object of other (a copy adds a reference, a move takes other's and leaves it
  // null); also from a pointer to a derived class.
  DKSmartPtr(const DKSmartPtr& other) noexcept : DKSmartPtr(other.m_p) {}
  DKSmartPtr(DKSmartPtr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  DKSmartPtr(const DKSmartPtr<U>& other) noexcept : DKSmartPtr(other.Get()) {}
  ~DKSmartPtr() { if (m_p) m_p->Release(); }

  // Takes the new object before releasing the old one, so assigning an object that only
  // the old one keeps alive is safe. Assigning nullptr or 0 clears. The other forms do the same
  // with the object of another pointer (a move leaves it null).
  DKSmartPtr& operator=(T* p) noexcept {
    if (p) p->AddRef();
    T* old = std::exchange(m_p, p);
    if (old) old->Release();
    return *this;
  }
  DKSmartPtr& operator=(const DKSmartPtr& other) noexcept { return *this = other.m_p; }
  DKSmartPtr& operator=(DKSmartPtr&& other) noexcept {
    if (this != &other) {
      T* old = std::exchange(m_p, std::exchange(other.m_p, nullptr));
      if (old) old->Release();
    }
    return *this;
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  DKSmartPtr& operator=(const DKSmartPtr<U>& other) noexcept { return *this = other.Get(); }

  // Releases the object and becomes null.
  void Clear() noexcept {
    if (T* old = std::exchange(m_p, nullptr)) old->Release();
  }

  // The object, or null; the pointer adds no reference.
  T* Get() const noexcept { return m_p; }
  // The object, through -> or *; the pointer must not be null.
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  // True when no object is held; operator bool is the opposite.
  bool IsNull() const noexcept { return m_p == nullptr; }
  explicit operator bool() const noexcept { return m_p != nullptr; }

  // True when both hold the same object (or are both null), or when a is null.
  friend bool operator==(const DKSmartPtr& a, const DKSmartPtr& b) noexcept { return a.m_p == b.m_p; }
  friend bool operator==(const DKSmartPtr& a, std::nullptr_t) noexcept { return a.m_p == nullptr; }

private:
  T* m_p = nullptr;
};

// A smart pointer to a counted object that may not be changed through it. It can be built
// and assigned from a DKSmartPtr of the same type.
template <class T>
class DKSmartPtrToConst : public DKSmartPtr<const T> {
public:
  // The constructors and assignments of DKSmartPtr<const T>.
  using DKSmartPtr<const T>::DKSmartPtr;
  using DKSmartPtr<const T>::operator=;
  // Null, or the object of another pointer (a reference is added), const or not, of T or of a
  // class derived from T.
  DKSmartPtrToConst() noexcept = default;
  DKSmartPtrToConst(const DKSmartPtr<const T>& other) noexcept : DKSmartPtr<const T>(other) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<const U*, const T*>>>
  DKSmartPtrToConst(const DKSmartPtr<U>& other) noexcept : DKSmartPtr<const T>(other.Get()) {}
};
