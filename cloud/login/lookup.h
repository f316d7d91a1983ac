// Tables of pairs: a key and what it means.
#pragma once

#include <algorithm>
#include <iterator>

// What the first row with that key says, `other` where there is none.
template <class Table, class Key, class Value>
Value lookedUp(const Table& table, const Key& key, const Value& other) {
  const auto row =
      std::find_if(std::begin(table), std::end(table), [&key](const auto& one) { return one.first == key; });
  return row == std::end(table) ? other : Value(row->second);
}
