#include "services/GoogleErrorDescription.h"

#include <QObject>

#include "core/LoggerWrapper.h"
#include "core/PathUtils.h"
#include "core/PercentEncoding.h"

namespace {

// The reason's text; null for a reason no message is written for.
const char* ReasonText(std::int32_t reason) {
  switch (reason) {
    case TreeError::kUnknown:
      return "неизвестная ошибка.";
    case TreeError::kDuplicate:
      return "повторяющийся элемент.";
    case TreeError::kSeveralFolders:
      return "файл находится в нескольких папках.";
    case TreeError::kNoLocation:
      return "не удалось определить местоположения файла.";
    case TreeError::kSharedDuplicate:
      return "повторяющийся элемент среди элементов с предоставленным доступом.";
    default:
      return nullptr;
  }
}

}  // namespace

QString GoogleErrorDescription::Text(const TreeError& error) {
  // 1. No error, or one without a message.
  if (error.reason == TreeError::kNone) {
    return QString();
  }
  const char* reason = ReasonText(error.reason);
  if (!reason) {
    LOG_FATAL << "Unhandled error reason.";
    return QString();
  }
  // 2. What failed, and where.
  std::string parent;
  std::string name;
  utils::SplitPath(error.path, &parent, &name);
  QString text = QObject::tr("Произошла ошибка при обработке ");
  text += error.is_file ? QObject::tr("файла") : QObject::tr("папки");
  text += " \"" + QString::fromStdString(parent) + (parent.empty() ? "" : "/");
  // 3. The item's name, as a search of the Drive's web page.
  std::string search =
      std::string(kDriveWebHost) + "/drive/search?q=" + utils::PercentEncoded(name, false);
  text += "<a href=\"" + QString::fromStdString(search) + "\">" + QString::fromStdString(name) +
          "</a>\": ";
  return text + QObject::tr(reason);
}
