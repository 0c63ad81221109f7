// A RemoteNameMapper with the Windows table, as the adapters have it: for tests of code that is
// given a mapper by its adapter.
#pragma once

#include <string>

#include "core/RemoteNameMapper.h"

namespace test {

class WindowsNameMapper : public RemoteNameMapper {
 public:
  bool MapNameToRemote(std::string* name) const override;
  void MapNameToRemote(const std::string& name, std::string* out, bool* changed) const override;
  bool MapPathToRemote(std::string* path) const override;
  void MapPathToRemote(const std::string& path, std::string* out, bool* changed) const override;
  bool UnmapNameToLocal(std::string* name) const override;
  void UnmapNameToLocal(const std::string& name, std::string* out, bool* changed) const override;
  bool UnmapPathToLocal(std::string* path) const override;
  void UnmapPathToLocal(const std::string& path, std::string* out, bool* changed) const override;
};

}  // namespace test
