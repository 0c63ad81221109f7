#include "core/PathUtils.h"

#include <algorithm>

namespace utils {

std::pair<std::string_view, std::string_view> SplitIntoParentPathAndName(std::string_view path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return {std::string_view(), path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

std::string_view ParentPath(std::string_view path) {
  return SplitIntoParentPathAndName(path).first;
}

std::string_view ExtractNameFromPath(std::string_view path) {
  return SplitIntoParentPathAndName(path).second;
}

bool SplitPath(std::string_view path, std::string* parent, std::string* name) {
  auto [parent_part, name_part] = SplitIntoParentPathAndName(path);
  if (parent) {
    parent->assign(parent_part);
  }
  if (name) {
    name->assign(name_part);
  }
  return !name_part.empty();
}

std::vector<std::string> PathSegments(std::string_view path) {
  std::vector<std::string> segments;
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t slash = std::min(path.find('/', start), path.size());
    if (slash > start) {
      segments.emplace_back(path.substr(start, slash - start));
    }
    start = slash + 1;
  }
  return segments;
}

std::string ChooseUniqueNamePostfix(const std::function<bool(const std::string&)>& exists,
                                    const std::string& name) {
  if (!exists(name)) {
    return name;
  }
  // The extension is the last dot of the last segment; a leading dot (".profile") is no extension.
  std::size_t segment = name.rfind('/');
  segment = segment == std::string::npos ? 0 : segment + 1;
  std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot <= segment) {
    dot = name.size();
  }
  const std::string stem = name.substr(0, dot);
  const std::string extension = name.substr(dot);
  for (int postfix = 1; postfix <= kMaxUniqueNamePostfix; ++postfix) {
    std::string candidate = stem + " (" + std::to_string(postfix) + ")" + extension;
    if (!exists(candidate)) {
      return candidate;
    }
  }
  return std::string();
}

}  // namespace utils
