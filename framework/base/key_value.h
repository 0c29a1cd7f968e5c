#pragma once

#include <cstring>

/// One row of a table that is searched both ways. A table ends with a row whose key is null.
/// Threads: tables are built at load time and only read.
template <class V> struct Key2_Value_T {
  const char* key;
  unsigned key_len;
  V value;
};

/// The value of the row whose key is exactly key[0..len), or `none`.
template <class V> V get_key_value_entry(const Key2_Value_T<V>* table, const char* key, unsigned len, V none)
{
  for (; table->key; ++table)
    if (table->key_len == len && ::memcmp(table->key, key, len) == 0)
      return table->value;
  return none;
}

/// The key of the first row with this value, or null (the end row's key).
template <class V> const char* get_key_value_entry(const Key2_Value_T<V>* table, V value)
{
  while (table->key && table->value != value)
    ++table;
  return table->key;
}
