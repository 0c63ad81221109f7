// Names as the service takes them. Some services refuse characters a local name may hold; each
// such character travels as a replacement of up to four bytes of UTF-8 and comes back on the way
// down.
//
//   std::string remote;
//   bool changed = false;
//   adapter->MapPathToRemote("a/x<y", &remote, &changed);  // "a/x＜y", changed
//
// The Windows table replaces < > : " \ | ? * by their full-width forms (U+FF1C, ...) and the
// control characters 1 to 31 by the Control Pictures U+2401 to U+241F: all read the same on the
// service's web pages. "/" is never in a table (it separates segments) and neither is NUL.
// A remote name that already holds one of the replacements comes down as the replaced character;
// that is the price of a mapping without escapes.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class InvalidSymbolsMapping {
 public:
  // The replacement is UTF-8, padded with NUL when shorter than four bytes.
  using Map = std::vector<std::pair<char, std::array<char, 4>>>;

  static const Map kInvalidSymbolsMap_StdWin;

  // `text` with every character of the table replaced. False (and `*out` untouched) when there
  // was nothing to replace.
  static bool MapToRemote(const Map& map, std::string_view text, std::string* out);
  // The inverse: every replacement turned back into its character.
  static bool UnmapToLocal(const Map& map, std::string_view text, std::string* out);
};

// The in-place forms answer whether the text changed; in the others `*changed` (may be null) says
// so and `*out` always receives the result. All eight go by the one table of SymbolsMap(): "/" is
// in no table, so a path maps as one string, every segment alike.
class RemoteNameMapper {
 public:
  virtual ~RemoteNameMapper() = default;

  virtual bool MapNameToRemote(std::string* name) const;
  virtual void MapNameToRemote(const std::string& name, std::string* out, bool* changed) const;
  virtual bool MapPathToRemote(std::string* path) const;
  virtual void MapPathToRemote(const std::string& path, std::string* out, bool* changed) const;
  virtual bool UnmapNameToLocal(std::string* name) const;
  virtual void UnmapNameToLocal(const std::string& name, std::string* out, bool* changed) const;
  virtual bool UnmapPathToLocal(std::string* path) const;
  virtual void UnmapPathToLocal(const std::string& path, std::string* out, bool* changed) const;

 protected:
  // The characters the service refuses, with their replacements.
  virtual const InvalidSymbolsMapping::Map& SymbolsMap() const = 0;

 private:
  using MapFunction = bool (*)(const InvalidSymbolsMapping::Map&, std::string_view, std::string*);
  bool MapInPlace(MapFunction map, std::string* text) const;
  void MapTo(MapFunction map, const std::string& text, std::string* out, bool* changed) const;
};
