// A sparse set of instruction indices for the matcher of the regular expressions, internal to
// src/conditions. The dense array lists the members in the order they came; the sparse array
// gives each member its place there, and is believed only where the dense array agrees, so that
// clearing the set only resets its size.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace dkre {

// A set of instruction indices with constant-time insert, test and clear.
class SparseSet {
public:
  explicit SparseSet(std::size_t capacity = 0) : m_dense(capacity), m_sparse(capacity) {}
  void Resize(std::size_t capacity) {
    m_dense.resize(capacity);
    m_sparse.resize(capacity);
    m_size = 0;
  }
  bool Contains(std::uint32_t i) const noexcept {
    const std::uint32_t s = m_sparse[i];
    return s < m_size && m_dense[s] == i;
  }
  void Insert(std::uint32_t i) noexcept {
    m_sparse[i] = m_size;
    m_dense[m_size++] = i;
  }
  void Clear() noexcept { m_size = 0; }
  std::uint32_t Size() const noexcept { return m_size; }
  bool Empty() const noexcept { return m_size == 0; }
  const std::uint32_t* begin() const noexcept { return m_dense.data(); }
  const std::uint32_t* end() const noexcept { return m_dense.data() + m_size; }

private:
  std::vector<std::uint32_t> m_dense;
  std::vector<std::uint32_t> m_sparse;
  std::uint32_t m_size = 0;
};

// A set of instruction indices that is only tested and added to, never listed: one stamp per
// index, the set being the indices stamped with the current generation, so that clearing it is
// one increment.
class StampSet {
public:
  void Resize(std::size_t capacity) {
    m_stamps.assign(capacity, 0);
    m_generation = 1;
  }
  bool Contains(std::uint32_t i) const noexcept { return m_stamps[i] == m_generation; }
  void Insert(std::uint32_t i) noexcept { m_stamps[i] = m_generation; }
  void Clear() noexcept {
    if (++m_generation == 0) { // wrapped: old stamps could pass for the new generation
      std::fill(m_stamps.begin(), m_stamps.end(), 0);
      m_generation = 1;
    }
  }

private:
  std::vector<std::uint32_t> m_stamps;
  std::uint32_t m_generation = 1;
};

} // namespace dkre
