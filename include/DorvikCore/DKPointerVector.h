// A growable vector of pointers that does not own what they point at.
#pragma once

#include <cstddef>
#include <vector>

template <class T>
class DKPointerVector {
public:
  void Add(T* p) { m_items.push_back(p); }
  std::size_t GetCount() const noexcept { return m_items.size(); }
  std::size_t size() const noexcept { return m_items.size(); }
  bool IsEmpty() const noexcept { return m_items.empty(); }
  T* operator[](std::size_t index) const noexcept { return m_items[index]; }
  // Null when index is out of range.
  T* At(std::size_t index) const noexcept { return index < m_items.size() ? m_items[index] : nullptr; }
  void RemoveAt(std::size_t index) {
    if (index < m_items.size())
      m_items.erase(m_items.begin() + static_cast<std::ptrdiff_t>(index));
  }
  void RemoveAll() noexcept { m_items.clear(); }
  void Reserve(std::size_t n) { m_items.reserve(n); }

  typename std::vector<T*>::const_iterator begin() const noexcept { return m_items.begin(); }
  typename std::vector<T*>::const_iterator end() const noexcept { return m_items.end(); }

private:
  std::vector<T*> m_items;
};
