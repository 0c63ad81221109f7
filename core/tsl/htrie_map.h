// tsl::htrie_map: a map from string keys (paths) to values, with prefix search.
//
//   tsl::htrie_map<char, std::string> links;
//   links.insert("docs/a.txt", "https://...");
//   for (auto it = links.begin(); it != links.end(); ++it) use(it.key(), it.value());
//
// Iteration is in key order; `*it` is the value, as it.value().
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>

#include "core/tsl/htrie_common.h"

namespace tsl {
namespace detail_htrie {

template <class CharT, class T>
using MapStore = std::map<std::basic_string<CharT>, T, std::less<>>;

template <class CharT, class T>
using MapBase = HtrieBase<CharT, MapStore<CharT, T>,
                          MapIterator<CharT, T, typename MapStore<CharT, T>::iterator, false>,
                          MapIterator<CharT, T, typename MapStore<CharT, T>::const_iterator, true>>;

}  // namespace detail_htrie

template <class CharT, class T, class Hash = void, class KeySizeT = std::uint16_t>
class htrie_map : public detail_htrie::MapBase<CharT, T> {
  using Base = detail_htrie::MapBase<CharT, T>;

 public:
  using mapped_type = T;
  using typename Base::iterator;
  using typename Base::size_type;

  using Base::Base;
  htrie_map() = default;

  // Leaves an existing value as it is, like std::map::insert.
  std::pair<iterator, bool> insert(std::basic_string_view<CharT> key, const T& value) {
    return emplace(key, value);
  }
  std::pair<iterator, bool> insert_ks(const CharT* key, size_type key_size, const T& value) {
    return emplace(std::basic_string_view<CharT>(key, key_size), value);
  }
  template <class... Args>
  std::pair<iterator, bool> emplace(std::basic_string_view<CharT> key, Args&&... args) {
    auto it = this->items_.lower_bound(key);
    if (it != this->items_.end() && it->first == key)
      return {iterator(it), false};
    it = this->items_.emplace_hint(it, std::piecewise_construct, std::forward_as_tuple(key),
                                   std::forward_as_tuple(std::forward<Args>(args)...));
    return {iterator(it), true};
  }
  std::pair<iterator, bool> insert_or_assign(std::basic_string_view<CharT> key, T value) {
    auto it = this->items_.lower_bound(key);
    if (it != this->items_.end() && it->first == key) {
      it->second = std::move(value);
      return {iterator(it), false};
    }
    it = this->items_.emplace_hint(it, key, std::move(value));
    return {iterator(it), true};
  }

  T& operator[](std::basic_string_view<CharT> key) { return *emplace(key).first; }
  T& at(std::basic_string_view<CharT> key) {
    return const_cast<T&>(static_cast<const htrie_map*>(this)->at(key));
  }
  const T& at(std::basic_string_view<CharT> key) const {
    auto it = this->items_.find(key);
    if (it == this->items_.end())
      throw std::out_of_range("htrie_map::at: no such key");
    return it->second;
  }
};

}  // namespace tsl
