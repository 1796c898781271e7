// A growable vector of pointers that does not own what they point at.
#pragma once

#include <cstddef>
#include <vector>

// The pointers stay in the order they were added. Deleting the objects is the caller's
// business, before or after removing their pointers.
template <class T>
class DKPointerVector {
public:
  // Appends p (null too).
  void Add(T* p) { m_items.push_back(p); }
  // The number of pointers held.
  std::size_t GetCount() const noexcept { return m_items.size(); }
  std::size_t size() const noexcept { return m_items.size(); }
  // True when no pointer is held.
  bool IsEmpty() const noexcept { return m_items.empty(); }
  // The pointer at index, which must be below GetCount() (not checked).
  T* operator[](std::size_t index) const noexcept { return m_items[index]; }
  // The pointer at index; null when index is out of range.
  T* At(std::size_t index) const noexcept { return index < m_items.size() ? m_items[index] : nullptr; }
  // Removes the pointer at index, moving the later ones down; nothing when out of range.
  void RemoveAt(std::size_t index) {
    if (index < m_items.size())
      m_items.erase(m_items.begin() + static_cast<std::ptrdiff_t>(index));
  }
  // Removes every pointer (the objects are not deleted).
  void RemoveAll() noexcept { m_items.clear(); }
  // Makes room for n pointers in all, so that adding up to them does not reallocate.
  void Reserve(std::size_t n) { m_items.reserve(n); }

  // Iteration over the pointers in order, for range-based for loops.
  typename std::vector<T*>::const_iterator begin() const noexcept { return m_items.begin(); }
  typename std::vector<T*>::const_iterator end() const noexcept { return m_items.end(); }

private:
  std::vector<T*> m_items;
};
