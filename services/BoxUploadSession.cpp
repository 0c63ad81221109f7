#include "services/BoxUploadSession.h"

#include <QByteArray>

#include <algorithm>

#include "services/BoxItems.h"
#include "services/RemoteBoxUtils.h"

namespace rest_api {
namespace {

std::string Text(const utils::json::json_tree& tree, const std::string& path) {
  auto child = utils::json::Child(tree, path);
  return child && child->empty() && child->data() != "null" ? child->data() : std::string();
}

bool ReadPart(const utils::json::json_tree& tree, BoxUploadPart* part) {
  part->part_id = Text(tree, "part_id");
  part->sha1 = Text(tree, "sha1");
  return !part->part_id.empty() && ParseBoxNumber(Text(tree, "offset"), &part->offset) &&
         ParseBoxNumber(Text(tree, "size"), &part->size) && part->size > 0;
}

}  // namespace

bool ParseUploadSession(const utils::json::json_tree& answer, BoxUploadSession* session) {
  session->id = Text(answer, "id");
  session->upload_part_url = Text(answer, "session_endpoints.upload_part");
  session->expires_at = ParseBoxTime(Text(answer, "session_expires_at"));
  return !session->id.empty() && !session->upload_part_url.empty() && session->expires_at > 0 &&
         ParseBoxNumber(Text(answer, "part_size"), &session->part_size) && session->part_size > 0 &&
         session->part_size <= (1ull << 30) &&
         ParseBoxNumber(Text(answer, "total_parts"), &session->total_parts);
}

bool ParseUploadedPart(const utils::json::json_tree& answer, BoxUploadPart* part) {
  auto child = answer.get_child_optional("part");
  return child && ReadPart(*child, part);
}

bool ParsePartsList(const utils::json::json_tree& answer, std::vector<BoxUploadPart>* parts) {
  parts->clear();
  auto entries = answer.get_child_optional("entries");
  if (!entries || !entries->data().empty())
    return false;
  for (const auto& element : *entries) {
    BoxUploadPart part;
    if (!ReadPart(element.second, &part))
      return false;
    parts->push_back(part);
  }
  std::sort(parts->begin(), parts->end(),
            [](const BoxUploadPart& a, const BoxUploadPart& b) { return a.offset < b.offset; });
  return true;
}

std::uint64_t ContiguousBytes(const std::vector<BoxUploadPart>& parts,
                              std::vector<BoxUploadPart>* kept) {
  kept->clear();
  std::uint64_t reached = 0;
  for (const BoxUploadPart& part : parts) {
    if (part.offset != reached)
      break;
    kept->push_back(part);
    reached += part.size;
  }
  return reached;
}

std::string CommitBody(const std::vector<BoxUploadPart>& parts, const std::string& attributes) {
  std::string body = "{\"parts\":[";
  for (std::size_t i = 0; i < parts.size(); ++i) {
    body += (i ? ",{\"part_id\":" : "{\"part_id\":") + JsonQuoted(parts[i].part_id) +
            ",\"offset\":" + std::to_string(parts[i].offset) +
            ",\"size\":" + std::to_string(parts[i].size) + "}";
  }
  return body + "],\"attributes\":" + attributes + "}";
}

std::string DigestOfHexSha1(const std::string& hex) {
  return QByteArray::fromHex(QByteArray::fromStdString(hex)).toBase64().toStdString();
}

}  // namespace rest_api
