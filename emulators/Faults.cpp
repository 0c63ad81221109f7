#include "emulators/Faults.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "emulators/CloudAccount.h"

namespace emulators {

namespace {

std::string ParentPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The id of the folder at `path`, made where missing.
bool MakeFolders(CloudAccount& account, const std::string& path, std::string* id,
                 std::string* error) {
  *id = account.RootId();
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t slash = path.find('/', start);
    std::string name = path.substr(start, slash == std::string::npos ? slash : slash - start);
    start = slash == std::string::npos ? path.size() : slash + 1;
    if (name.empty())
      continue;
    if (std::optional<Item> child = account.ChildByName(*id, name)) {
      *id = child->id;
      continue;
    }
    Item made;
    AccountError result = account.CreateFolder(*id, name, &made);
    if (result != AccountError::kNone) {
      *error = name + ": " + AccountErrorName(result);
      return false;
    }
    *id = made.id;
  }
  return true;
}

std::uint64_t NumberOr(const QJsonObject& object, const char* key, std::uint64_t otherwise) {
  QJsonValue value = object.value(key);
  return value.isDouble() ? static_cast<std::uint64_t>(value.toDouble()) : otherwise;
}

}  // namespace

bool ApplyForeignChange(CloudAccount& account, const ForeignChange& change, std::string* error) {
  // 1. The folders a new item needs.
  std::string parent_id;
  if (change.op == "create" || change.op == "mkdir") {
    if (!MakeFolders(account, change.op == "mkdir" ? change.path : ParentPath(change.path),
                     &parent_id, error)) {
      return false;
    }
    if (change.op == "mkdir")
      return true;
    AccountError result =
        account.CreateFile(parent_id, NameOf(change.path), change.content, 0, nullptr);
    *error = AccountErrorName(result);
    return result == AccountError::kNone;
  }
  // 2. The others act on an item that is there.
  std::optional<Item> item = account.FindByPath(change.path);
  if (!item) {
    *error = "no item at " + change.path;
    return false;
  }
  AccountError result = AccountError::kNone;
  if (change.op == "modify") {
    result = account.ReplaceContent(item->id, change.content, 0, nullptr);
  } else if (change.op == "rename") {
    result = account.Rename(item->id, change.to, nullptr);
  } else if (change.op == "move") {
    std::optional<Item> folder = account.FindByPath(change.to);
    result = folder ? account.Move(item->id, {folder->id}, std::string(), nullptr)
                    : AccountError::kNotFound;
  } else if (change.op == "trash") {
    result = account.Trash(item->id, nullptr);
  } else if (change.op == "delete") {
    result = account.Delete(item->id);
  } else if (change.op == "share") {
    result = account.SetSharedWithMe(item->id, true, nullptr);
  } else {
    *error = "no such change: " + change.op;
    return false;
  }
  *error = AccountErrorName(result);
  return result == AccountError::kNone;
}

void FaultBook::Add(const FaultRule& rule) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(Entry{rule, 0});
}

bool FaultBook::Add(const std::string& json, std::string* error) {
  QJsonParseError parse_error;
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &parse_error);
  if (!document.isObject()) {
    *error = "a fault rule is a JSON object: " + parse_error.errorString().toStdString();
    return false;
  }
  QJsonObject object = document.object();
  FaultRule rule;
  rule.verb = object.value("verb").toString().toStdString();
  rule.path_prefix = object.value("path").toString().toStdString();
  rule.nth = object.value("nth").toInt(1);
  rule.times = object.value("times").toInt(1);
  Fault& fault = rule.fault;
  fault.status = object.value("status").toInt(0);
  fault.error = object.value("error").toString().toStdString();
  fault.retry_after_s = object.value("retry_after").toInt(-1);
  fault.delay_ms = object.value("delay_ms").toInt(0);
  fault.cut_after = NumberOr(object, "cut_after", UINT64_MAX);
  fault.flip_byte = NumberOr(object, "flip_byte", UINT64_MAX);
  fault.reset = object.value("reset").toBool(false);
  fault.trickle_bytes = static_cast<std::size_t>(NumberOr(object, "trickle_bytes", 0));
  fault.trickle_interval_ms = object.value("trickle_interval_ms").toInt(0);
  fault.drop_field = object.value("drop_field").toString().toStdString();
  fault.persist_limit = NumberOr(object, "persist_limit", UINT64_MAX);
  fault.expire_sessions = object.value("expire_sessions").toBool(false);
  if (object.value("change").isObject()) {
    QJsonObject change = object.value("change").toObject();
    fault.change_after = ForeignChange{change.value("op").toString().toStdString(),
                                       change.value("path").toString().toStdString(),
                                       change.value("to").toString().toStdString(),
                                       change.value("content").toString().toStdString()};
  }
  Add(rule);
  return true;
}

void FaultBook::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

std::optional<Fault> FaultBook::Take(const std::string& verb, const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::optional<Fault> taken;
  for (Entry& entry : entries_) {
    const FaultRule& rule = entry.rule;
    if ((!rule.verb.empty() && rule.verb != verb) ||
        path.compare(0, rule.path_prefix.size(), rule.path_prefix) != 0) {
      continue;
    }
    int number = ++entry.seen;
    bool in_window = number >= rule.nth && (rule.times <= 0 || number < rule.nth + rule.times);
    if (in_window && !taken) {
      taken = rule.fault;
      ++fired_;
    }
  }
  return taken;
}

int FaultBook::Fired() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fired_;
}

}  // namespace emulators
