#include "core/RemoteNameMapper.h"

namespace {

std::string_view ReplacementOf(const std::array<char, 4>& replacement) {
  std::size_t length = 0;
  while (length < replacement.size() && replacement[length] != '\0') {
    ++length;
  }
  return std::string_view(replacement.data(), length);
}

InvalidSymbolsMapping::Map MakeStdWinMap() {
  InvalidSymbolsMapping::Map map;
  // Full-width forms sit at U+FF01 + (c - '!'), three bytes each: EF BC/BD xx.
  for (char c : std::string_view("<>:\"\\|?*")) {
    const unsigned code = 0xFF01 + static_cast<unsigned>(c - '!');
    map.push_back({c,
                   {static_cast<char>(0xEF), static_cast<char>(0x80 | ((code >> 6) & 0x3F)),
                    static_cast<char>(0x80 | (code & 0x3F)), '\0'}});
  }
  // Control Pictures: U+2400 + c, E2 90 xx.
  for (char c = 1; c < 0x20; ++c) {
    map.push_back(
        {c, {static_cast<char>(0xE2), static_cast<char>(0x90), static_cast<char>(0x80 + c), '\0'}});
  }
  return map;
}

}  // namespace

const InvalidSymbolsMapping::Map InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin = MakeStdWinMap();

bool InvalidSymbolsMapping::MapToRemote(const Map& map, std::string_view text, std::string* out) {
  std::string mapped;
  bool changed = false;
  for (char c : text) {
    auto entry = map.begin();
    while (entry != map.end() && entry->first != c) {
      ++entry;
    }
    if (entry == map.end()) {
      mapped.push_back(c);
    } else {
      mapped.append(ReplacementOf(entry->second));
      changed = true;
    }
  }
  if (changed) {
    *out = std::move(mapped);
  }
  return changed;
}

bool InvalidSymbolsMapping::UnmapToLocal(const Map& map, std::string_view text, std::string* out) {
  std::string unmapped;
  bool changed = false;
  for (std::size_t pos = 0; pos < text.size();) {
    auto entry = map.begin();
    for (; entry != map.end(); ++entry) {
      std::string_view replacement = ReplacementOf(entry->second);
      if (!replacement.empty() && text.compare(pos, replacement.size(), replacement) == 0) {
        break;
      }
    }
    if (entry == map.end()) {
      unmapped.push_back(text[pos++]);
    } else {
      unmapped.push_back(entry->first);
      pos += ReplacementOf(entry->second).size();
      changed = true;
    }
  }
  if (changed) {
    *out = std::move(unmapped);
  }
  return changed;
}

bool RemoteNameMapper::MapInPlace(MapFunction map, std::string* text) const {
  return map(SymbolsMap(), *text, text);
}

void RemoteNameMapper::MapTo(MapFunction map, const std::string& text, std::string* out,
                             bool* changed) const {
  const bool mapped = map(SymbolsMap(), text, out);
  if (!mapped) {
    *out = text;
  }
  if (changed) {
    *changed = mapped;
  }
}

bool RemoteNameMapper::MapNameToRemote(std::string* name) const {
  return MapInPlace(&InvalidSymbolsMapping::MapToRemote, name);
}

void RemoteNameMapper::MapNameToRemote(const std::string& name, std::string* out,
                                       bool* changed) const {
  MapTo(&InvalidSymbolsMapping::MapToRemote, name, out, changed);
}

bool RemoteNameMapper::MapPathToRemote(std::string* path) const {
  return MapInPlace(&InvalidSymbolsMapping::MapToRemote, path);
}

void RemoteNameMapper::MapPathToRemote(const std::string& path, std::string* out,
                                       bool* changed) const {
  MapTo(&InvalidSymbolsMapping::MapToRemote, path, out, changed);
}

bool RemoteNameMapper::UnmapNameToLocal(std::string* name) const {
  return MapInPlace(&InvalidSymbolsMapping::UnmapToLocal, name);
}

void RemoteNameMapper::UnmapNameToLocal(const std::string& name, std::string* out,
                                        bool* changed) const {
  MapTo(&InvalidSymbolsMapping::UnmapToLocal, name, out, changed);
}

bool RemoteNameMapper::UnmapPathToLocal(std::string* path) const {
  return MapInPlace(&InvalidSymbolsMapping::UnmapToLocal, path);
}

void RemoteNameMapper::UnmapPathToLocal(const std::string& path, std::string* out,
                                        bool* changed) const {
  MapTo(&InvalidSymbolsMapping::UnmapToLocal, path, out, changed);
}
