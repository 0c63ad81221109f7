// Helpers for the core's canonical paths: "folder/sub/name", relative, "/" between segments.
//
//   utils::SplitIntoParentPathAndName("a/b/c.txt");  // {"a/b", "c.txt"}
//   utils::ChooseUniqueNamePostfix(exists, "c.txt");  // "c (1).txt" when "c.txt" is taken
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace utils {

// Splits at the last "/": "a/b/c" gives "a/b" and "c"; a path without "/" is all name.
std::pair<std::string_view, std::string_view> SplitIntoParentPathAndName(std::string_view path);
std::string_view ParentPath(std::string_view path);
std::string_view ExtractNameFromPath(std::string_view path);
// As SplitIntoParentPathAndName, into strings (either may be null). False when the name is empty.
bool SplitPath(std::string_view path, std::string* parent, std::string* name);
// The names along a path, empty segments left out: "/a//b/" gives {"a", "b"}.
std::vector<std::string> PathSegments(std::string_view path);

// `name` itself when it is free, else the first free of "stem (1).ext", "stem (2).ext", ...
// Empty when every candidate up to kMaxUniqueNamePostfix is taken.
constexpr int kMaxUniqueNamePostfix = 10000;
std::string ChooseUniqueNamePostfix(const std::function<bool(const std::string&)>& exists,
                                    const std::string& name);

}  // namespace utils
