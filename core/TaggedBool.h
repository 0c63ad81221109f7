// TaggedBool: a bool that must be named at the call site, so that two flags of one call cannot be
// swapped unnoticed.
//
//   using WithServiceItems = TaggedBool<struct WithServiceItemsTag>;
//   root.FolderSize(WithServiceItems(true));
#pragma once

template <typename Tag>
class TaggedBool {
 public:
  explicit constexpr TaggedBool(bool value) : value_(value) {}
  constexpr explicit operator bool() const { return value_; }
  constexpr bool value() const { return value_; }

 private:
  bool value_;
};
