// The services the library serves, as the core numbers them. The numbers never change.
#pragma once

#include <cstdint>
#include <ostream>

enum class CloudServiceId : std::int32_t {
  UNKNOWN = 0,
  DROPBOX = 1,
  QUILLO = 2,
  YANDEX = 3,
  GOOGLE = 4,
  WEBDAV = 5,
  BOX = 6,
  ONEDRIVE = 7,
  PCLOUD = 8,
  TEAMVOLT = 9,
  S3_BASE = 10,
  S3_EMBERA = 11,
  S3_AMAZON = 12,
  HUAWEI = 13,
};

// "DROPBOX", ...; empty for a value beyond the table.
const char* CloudServiceIdName(CloudServiceId id);
std::ostream& operator<<(std::ostream& out, CloudServiceId id);
