// tsl::htrie_set: a set of string keys (paths), with prefix search.
//
//   tsl::htrie_set<char> items;
//   items.insert("Backups/meta.json");
//   for (auto it = items.begin(); it != items.end(); ++it) use(it.key());
//   auto [first, last] = items.equal_prefix_range("Backups/");
//
// Iteration is in key order.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <set>

#include "core/tsl/htrie_common.h"

namespace tsl {

template <class CharT, class Hash = void, class KeySizeT = std::uint16_t>
class htrie_set
    : public detail_htrie::HtrieBase<
          CharT, std::set<std::basic_string<CharT>, std::less<>>,
          detail_htrie::SetIterator<
              CharT, typename std::set<std::basic_string<CharT>, std::less<>>::const_iterator>,
          detail_htrie::SetIterator<
              CharT, typename std::set<std::basic_string<CharT>, std::less<>>::const_iterator>> {
  using Base = detail_htrie::HtrieBase<
      CharT, std::set<std::basic_string<CharT>, std::less<>>,
      detail_htrie::SetIterator<
          CharT, typename std::set<std::basic_string<CharT>, std::less<>>::const_iterator>,
      detail_htrie::SetIterator<
          CharT, typename std::set<std::basic_string<CharT>, std::less<>>::const_iterator>>;

 public:
  using typename Base::iterator;
  using typename Base::size_type;

  using Base::Base;
  htrie_set() = default;
  htrie_set(std::initializer_list<std::basic_string_view<CharT>> keys) {
    for (auto key : keys)
      insert(key);
  }

  std::pair<iterator, bool> insert(std::basic_string_view<CharT> key) {
    auto [it, inserted] = this->items_.emplace(key);
    return {iterator(it), inserted};
  }
  std::pair<iterator, bool> insert_ks(const CharT* key, size_type key_size) {
    return insert(std::basic_string_view<CharT>(key, key_size));
  }
  template <class InputIt>
  void insert(InputIt first, InputIt last) {
    for (; first != last; ++first)
      insert(*first);
  }
  template <class... Args>
  std::pair<iterator, bool> emplace(Args&&... args) {
    auto [it, inserted] = this->items_.emplace(std::forward<Args>(args)...);
    return {iterator(it), inserted};
  }
};

}  // namespace tsl
