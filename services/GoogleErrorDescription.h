// GoogleErrorDescription: the user's message for a tree the Google adapter could not build, with a
// link to the item in the Drive web search.
//
//   QString text = GoogleErrorDescription::Text(error);  // empty when error.reason is 0
#pragma once

#include <QString>

#include "services/GoogleTreeConstructors.h"

class GoogleErrorDescription {
 public:
  static constexpr const char* kDriveWebHost = "https://drive.google.com";

  static QString Text(const TreeError& error);
};
