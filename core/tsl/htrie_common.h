// What tsl::htrie_set and tsl::htrie_map share: the ordered store behind them, prefix search and
// the tuning knobs that callers set. Include htrie_set.h or htrie_map.h instead.
#pragma once

#include <cstddef>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tsl {
namespace detail_htrie {

// Compares as equivalent to every key that starts with `prefix`, so that an ordered container's
// equal_range finds the keys of one prefix in logarithmic time.
template <class CharT>
struct PrefixKey {
  std::basic_string_view<CharT> prefix;

  int Compare(const std::basic_string<CharT>& key) const {
    return std::basic_string_view<CharT>(key).substr(0, prefix.size()).compare(prefix);
  }
  friend bool operator<(const PrefixKey& p, const std::basic_string<CharT>& key) {
    return p.Compare(key) > 0;
  }
  friend bool operator<(const std::basic_string<CharT>& key, const PrefixKey& p) {
    return p.Compare(key) < 0;
  }
};

// Iterator of htrie_set: key() gives a copy of the key, `*it` a reference to it.
template <class CharT, class BaseIt>
class SetIterator {
 public:
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = std::basic_string<CharT>;
  using difference_type = std::ptrdiff_t;
  using pointer = const value_type*;
  using reference = const value_type&;

  SetIterator() = default;
  explicit SetIterator(BaseIt base) : base_(base) {}

  value_type key() const { return *base_; }
  reference operator*() const { return *base_; }
  pointer operator->() const { return &*base_; }
  SetIterator& operator++() {
    ++base_;
    return *this;
  }
  SetIterator operator++(int) {
    SetIterator old = *this;
    ++base_;
    return old;
  }
  bool operator==(const SetIterator& other) const { return base_ == other.base_; }
  bool operator!=(const SetIterator& other) const { return base_ != other.base_; }
  BaseIt base() const { return base_; }

 private:
  BaseIt base_;
};

// Iterator of htrie_map: key() gives a copy of the key, value() and `*it` the mapped value.
template <class CharT, class T, class BaseIt, bool IsConst>
class MapIterator {
 public:
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = T;
  using difference_type = std::ptrdiff_t;
  using reference = std::conditional_t<IsConst, const T&, T&>;
  using pointer = std::conditional_t<IsConst, const T*, T*>;

  MapIterator() = default;
  explicit MapIterator(BaseIt base) : base_(base) {}
  // A mutable iterator converts to a const one.
  template <class OtherIt, bool OtherConst, typename = std::enable_if_t<IsConst && !OtherConst>>
  MapIterator(const MapIterator<CharT, T, OtherIt, OtherConst>& other)  // NOLINT
      : base_(other.base()) {}

  std::basic_string<CharT> key() const { return base_->first; }
  reference value() const { return base_->second; }
  reference operator*() const { return base_->second; }
  pointer operator->() const { return &base_->second; }
  MapIterator& operator++() {
    ++base_;
    return *this;
  }
  MapIterator operator++(int) {
    MapIterator old = *this;
    ++base_;
    return old;
  }
  bool operator==(const MapIterator& other) const { return base_ == other.base_; }
  bool operator!=(const MapIterator& other) const { return base_ != other.base_; }
  BaseIt base() const { return base_; }

 private:
  BaseIt base_;
};

// Ordered keys over `Container` (std::set or std::map with a transparent comparison).
// `Iterator` and `ConstIterator` wrap the container's iterators and add key().
template <class CharT, class Container, class Iterator, class ConstIterator>
class HtrieBase {
 public:
  using char_type = CharT;
  using key_type = std::basic_string<CharT>;
  using size_type = std::size_t;
  using iterator = Iterator;
  using const_iterator = ConstIterator;

  static constexpr size_type DEFAULT_BURST_THRESHOLD = 16384;
  static constexpr float DEFAULT_MAX_LOAD_FACTOR = 8.0f;

  explicit HtrieBase(size_type burst_threshold = DEFAULT_BURST_THRESHOLD)
      : burst_threshold_(burst_threshold) {}

  iterator begin() { return iterator(items_.begin()); }
  iterator end() { return iterator(items_.end()); }
  const_iterator begin() const { return const_iterator(items_.begin()); }
  const_iterator end() const { return const_iterator(items_.end()); }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  bool empty() const { return items_.empty(); }
  size_type size() const { return items_.size(); }
  size_type max_size() const { return items_.max_size(); }
  void clear() { items_.clear(); }

  iterator find(std::basic_string_view<CharT> key) { return iterator(items_.find(key)); }
  const_iterator find(std::basic_string_view<CharT> key) const {
    return const_iterator(items_.find(key));
  }
  iterator find_ks(const CharT* key, size_type key_size) {
    return find(std::basic_string_view<CharT>(key, key_size));
  }
  const_iterator find_ks(const CharT* key, size_type key_size) const {
    return find(std::basic_string_view<CharT>(key, key_size));
  }
  size_type count(std::basic_string_view<CharT> key) const { return items_.count(key); }
  size_type count_ks(const CharT* key, size_type key_size) const {
    return count(std::basic_string_view<CharT>(key, key_size));
  }

  size_type erase(std::basic_string_view<CharT> key) {
    auto it = items_.find(key);
    if (it == items_.end())
      return 0;
    items_.erase(it);
    return 1;
  }
  size_type erase_ks(const CharT* key, size_type key_size) {
    return erase(std::basic_string_view<CharT>(key, key_size));
  }
  iterator erase(const_iterator pos) { return iterator(items_.erase(pos.base())); }
  iterator erase(const_iterator first, const_iterator last) {
    return iterator(items_.erase(first.base(), last.base()));
  }

  // The keys that start with `prefix`, in key order.
  std::pair<iterator, iterator> equal_prefix_range(std::basic_string_view<CharT> prefix) {
    auto range = items_.equal_range(PrefixKey<CharT>{prefix});
    return {iterator(range.first), iterator(range.second)};
  }
  std::pair<const_iterator, const_iterator> equal_prefix_range(
      std::basic_string_view<CharT> prefix) const {
    auto range = items_.equal_range(PrefixKey<CharT>{prefix});
    return {const_iterator(range.first), const_iterator(range.second)};
  }
  size_type erase_prefix(std::basic_string_view<CharT> prefix) {
    auto range = items_.equal_range(PrefixKey<CharT>{prefix});
    size_type erased = static_cast<size_type>(std::distance(range.first, range.second));
    items_.erase(range.first, range.second);
    return erased;
  }

  // Tuning of the hat-trie's buckets: kept for the callers that set them; the ordered store
  // behind this class has no buckets to tune.
  float max_load_factor() const { return max_load_factor_; }
  void max_load_factor(float ml) { max_load_factor_ = ml; }
  size_type burst_threshold() const { return burst_threshold_; }
  void burst_threshold(size_type threshold) { burst_threshold_ = threshold; }

  void swap(HtrieBase& other) {
    items_.swap(other.items_);
    std::swap(max_load_factor_, other.max_load_factor_);
    std::swap(burst_threshold_, other.burst_threshold_);
  }

  friend bool operator==(const HtrieBase& a, const HtrieBase& b) { return a.items_ == b.items_; }
  friend bool operator!=(const HtrieBase& a, const HtrieBase& b) { return !(a == b); }

 protected:
  Container items_;

 private:
  float max_load_factor_ = DEFAULT_MAX_LOAD_FACTOR;
  size_type burst_threshold_;
};

}  // namespace detail_htrie
}  // namespace tsl
