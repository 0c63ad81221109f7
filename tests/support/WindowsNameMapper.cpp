#include "support/WindowsNameMapper.h"

namespace test {

namespace {

using Direction = bool (*)(const InvalidSymbolsMapping::Map&, std::string_view, std::string*);

bool InPlace(Direction direction, std::string* text) {
  std::string out;
  if (!direction(InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin, *text, &out)) {
    return false;
  }
  *text = std::move(out);
  return true;
}

void Copied(Direction direction, const std::string& text, std::string* out, bool* changed) {
  *out = text;
  const bool mapped = InPlace(direction, out);
  if (changed) {
    *changed = mapped;
  }
}

}  // namespace

// "/" is in no table, so a path maps segment by segment exactly as a name does.
bool WindowsNameMapper::MapNameToRemote(std::string* name) const {
  return InPlace(&InvalidSymbolsMapping::MapToRemote, name);
}
void WindowsNameMapper::MapNameToRemote(const std::string& name, std::string* out,
                                        bool* changed) const {
  Copied(&InvalidSymbolsMapping::MapToRemote, name, out, changed);
}
bool WindowsNameMapper::MapPathToRemote(std::string* path) const {
  return InPlace(&InvalidSymbolsMapping::MapToRemote, path);
}
void WindowsNameMapper::MapPathToRemote(const std::string& path, std::string* out,
                                        bool* changed) const {
  Copied(&InvalidSymbolsMapping::MapToRemote, path, out, changed);
}
bool WindowsNameMapper::UnmapNameToLocal(std::string* name) const {
  return InPlace(&InvalidSymbolsMapping::UnmapToLocal, name);
}
void WindowsNameMapper::UnmapNameToLocal(const std::string& name, std::string* out,
                                         bool* changed) const {
  Copied(&InvalidSymbolsMapping::UnmapToLocal, name, out, changed);
}
bool WindowsNameMapper::UnmapPathToLocal(std::string* path) const {
  return InPlace(&InvalidSymbolsMapping::UnmapToLocal, path);
}
void WindowsNameMapper::UnmapPathToLocal(const std::string& path, std::string* out,
                                         bool* changed) const {
  Copied(&InvalidSymbolsMapping::UnmapToLocal, path, out, changed);
}

}  // namespace test
