// A RemoteNameMapper that changes nothing, for fuzz targets and benchmarks that link no test
// support library. Header-only for that reason.
#pragma once

#include <string>

#include "core/RemoteNameMapper.h"

namespace test {

class PassThroughNameMapper : public RemoteNameMapper {
 public:
  bool MapNameToRemote(std::string*) const override { return false; }
  void MapNameToRemote(const std::string& name, std::string* out, bool* changed) const override {
    Copy(name, out, changed);
  }
  bool MapPathToRemote(std::string*) const override { return false; }
  void MapPathToRemote(const std::string& path, std::string* out, bool* changed) const override {
    Copy(path, out, changed);
  }
  bool UnmapNameToLocal(std::string*) const override { return false; }
  void UnmapNameToLocal(const std::string& name, std::string* out, bool* changed) const override {
    Copy(name, out, changed);
  }
  bool UnmapPathToLocal(std::string*) const override { return false; }
  void UnmapPathToLocal(const std::string& path, std::string* out, bool* changed) const override {
    Copy(path, out, changed);
  }

 private:
  static void Copy(const std::string& text, std::string* out, bool* changed) {
    *out = text;
    if (changed) {
      *changed = false;
    }
  }
};

}  // namespace test
