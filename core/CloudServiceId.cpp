#include "core/CloudServiceId.h"

namespace {

constexpr const char* kNames[] = {"UNKNOWN", "DROPBOX",   "QUILLO",    "YANDEX", "GOOGLE",
                                  "WEBDAV",  "BOX",       "ONEDRIVE",  "PCLOUD", "TEAMVOLT",
                                  "S3_BASE", "S3_EMBERA", "S3_AMAZON", "HUAWEI"};

}  // namespace

const char* CloudServiceIdName(CloudServiceId id) {
  const auto value = static_cast<std::int32_t>(id);
  constexpr std::int32_t kCount = sizeof(kNames) / sizeof(kNames[0]);
  return value >= 0 && value < kCount ? kNames[value] : "";
}

std::ostream& operator<<(std::ostream& out, CloudServiceId id) {
  return out << CloudServiceIdName(id);
}
