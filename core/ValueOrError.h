// ValueOrError: the answer of an operation that gives a value on success and an error otherwise.
//
//   utils::ValueOrError<FileSystem::FileProperties, FileSystem::Result> props = ReadProps(path);
//   if (!props.HasValue()) return props.GetError();
//   Use(props.GetValue());
#pragma once

#include <utility>
#include <variant>

namespace utils {

template <typename V, typename E>
class ValueOrError {
  static_assert(!std::is_same<V, E>::value, "a value and an error of one type can't be told apart");

 public:
  ValueOrError(V value) : data_(std::in_place_index<0>, std::move(value)) {}
  ValueOrError(E error) : data_(std::in_place_index<1>, std::move(error)) {}

  bool HasValue() const { return data_.index() == 0; }
  const V& GetValue() const& { return std::get<0>(data_); }  // throws without a value
  V&& GetValue() && { return std::get<0>(std::move(data_)); }
  // The error, or a default constructed E (SUCCEEDED for a Result) when there is a value.
  E GetError() const { return HasValue() ? E() : std::get<1>(data_); }

 private:
  std::variant<V, E> data_;
};

}  // namespace utils
