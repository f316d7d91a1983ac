#include "base/include/shredder.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace lumo {

struct Shredder2::Rep {
  std::atomic<std::size_t> holders{1};
  std::size_t length = 0;
  std::size_t capacity = 0;

  char* text() { return reinterpret_cast<char*>(this + 1); }
};

namespace {

// A secret that grows by single characters is not copied for each of them.
constexpr std::size_t smallestGrowth = 64;

const char* required(const char* text) {
  if (text == nullptr) throw std::logic_error("Shredder2: null pointer");
  return text;
}

}  // namespace

Shredder2::Rep* Shredder2::allocate(std::size_t capacity) {
  if (capacity > max_size()) throw std::length_error("Shredder2: too long");
  Rep* rep = new (mlock_malloc(sizeof(Rep) + capacity + 1)) Rep;
  rep->capacity = capacity;
  rep->text()[0] = '\0';
  return rep;
}

void Shredder2::release(Rep* rep) noexcept {
  if (rep == nullptr || rep->holders.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  explicit_bzero(rep->text(), rep->capacity + 1);
  rep->~Rep();
  mlock_free(rep);
}

Shredder2::Shredder2(const char* text) : Shredder2(text, std::strlen(required(text))) {}

Shredder2::Shredder2(const char* data, std::size_t length) {
  if (length == 0) return;
  required(data);
  Rep* rep = allocate(length);
  std::memcpy(rep->text(), data, length);
  rep->text()[length] = '\0';
  rep->length = length;
  m_rep = rep;
}

Shredder2::Shredder2(const Shredder2& other) noexcept : m_rep(other.m_rep) {
  if (m_rep != nullptr) m_rep->holders.fetch_add(1, std::memory_order_relaxed);
}

Shredder2& Shredder2::operator=(const Shredder2& other) noexcept {
  Shredder2 copy(other);
  std::swap(m_rep, copy.m_rep);
  return *this;
}

Shredder2& Shredder2::operator=(Shredder2&& other) noexcept {
  Shredder2 taken(std::move(other));
  std::swap(m_rep, taken.m_rep);
  return *this;
}

Shredder2::~Shredder2() { release(m_rep); }

std::size_t Shredder2::size() const noexcept { return m_rep == nullptr ? 0 : m_rep->length; }

std::size_t Shredder2::max_size() noexcept { return std::numeric_limits<std::size_t>::max() / 4 - sizeof(Rep) - 1; }

const char* Shredder2::c_str() const noexcept { return m_rep == nullptr ? "" : m_rep->text(); }

bool Shredder2::shared() const noexcept {
  return m_rep != nullptr && m_rep->holders.load(std::memory_order_acquire) > 1;
}

Shredder2& Shredder2::append(const char* data, std::size_t length) {
  if (length == 0) return *this;
  required(data);
  if (length > max_size() - size()) throw std::length_error("Shredder2: too long");
  const std::size_t total = size() + length;
  Rep* rep = m_rep;
  if (rep == nullptr || shared() || rep->capacity < total) {
    rep = allocate(std::max({total, std::min(2 * size(), max_size()), smallestGrowth}));
    std::memcpy(rep->text(), c_str(), size());
  }
  // `data` may lie in the old buffer, which is let go of only afterwards.
  std::memmove(rep->text() + size(), data, length);
  rep->text()[total] = '\0';
  rep->length = total;
  if (rep != m_rep) {
    release(m_rep);
    m_rep = rep;
  }
  return *this;
}

Shredder2& Shredder2::operator+=(const char* text) { return append(text, std::strlen(required(text))); }

void Shredder2::clear() noexcept {
  release(m_rep);
  m_rep = nullptr;
}

bool Shredder2::operator==(const Shredder2& other) const noexcept {
  if (size() != other.size()) return false;
  // In constant time: how much of a secret was right is nobody's business.
  unsigned char difference = 0;
  for (std::size_t i = 0; i < size(); ++i) {
    difference = static_cast<unsigned char>(difference | (c_str()[i] ^ other.c_str()[i]));
  }
  return difference == 0;
}

}  // namespace lumo
