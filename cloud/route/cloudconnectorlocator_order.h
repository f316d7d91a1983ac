// The order in which connectors are tried.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <utility>
#include <vector>

// Gives the elements of a vector in an order drawn with rand(), each draw being an index into those that are left, in
// their first order. A tree of counts finds the element of that index (Fenwick): taking it out of the vector itself
// moves all behind it, which is too slow for a large forest.
template <class T>
class RandomOrder {
 public:
  explicit RandomOrder(std::vector<T> elements)
      : m_elements(std::move(elements)), m_counts(m_elements.size() + 1), m_left(m_elements.size()) {
    for (std::size_t node = 1; node < m_counts.size(); ++node) m_counts[node] = node & (~node + 1);
    while (2 * m_top < m_counts.size()) m_top *= 2;
  }

  bool empty() const { return m_left == 0; }

  T next() {
    // NOLINTNEXTLINE(cert-msc30-c,cert-msc50-cpp): any order is a good one; a seed makes it a known one.
    std::size_t skip = static_cast<std::size_t>(std::rand()) % m_left--;
    std::size_t before = 0;
    for (std::size_t step = m_top; step > 0; step /= 2) {
      const std::size_t node = before + step;
      if (node >= m_counts.size()) continue;
      if (m_counts[node] > skip) {
        --m_counts[node];
      } else {
        skip -= m_counts[node];
        before = node;
      }
    }
    return std::move(m_elements[before]);
  }

 private:
  std::vector<T> m_elements;
  // Node n counts what is left of the n & -n elements that end with number n, from 1.
  std::vector<std::size_t> m_counts;
  std::size_t m_top = 1;
  std::size_t m_left;
};
