#include "emulators/DavXml.h"

#include <QXmlStreamReader>

namespace emulators {

namespace {

constexpr const char* kDav = "DAV:";

std::string Str(const QStringRef& text) {
  return text.toString().toStdString();
}

// Where the reader stands among the elements that matter.
enum class Section { kOutside, kSet, kRemove };

}  // namespace

bool ParseDavBody(const std::string& body, DavBody* out, std::string* error) {
  *out = DavBody();
  if (body.find_first_not_of(" \t\r\n") == std::string::npos) {
    out->all = true;
    return true;
  }
  QXmlStreamReader xml(QByteArray::fromStdString(body));
  Section section = Section::kOutside;
  int depth = 0;
  int prop_depth = -1;  // the depth of the open <prop>, -1 outside one
  DavProperty* open = nullptr;
  while (!xml.atEnd()) {
    xml.readNext();
    if (xml.isStartElement()) {
      ++depth;
      std::string ns = Str(xml.namespaceUri());
      std::string name = Str(xml.name());
      // 1. The root names the request.
      if (depth == 1) {
        if (ns != kDav || (name != "propfind" && name != "propertyupdate")) {
          *error = "the root is not a DAV propfind or propertyupdate";
          return false;
        }
        out->root = name == "propfind" ? DavBody::Root::kPropfind : DavBody::Root::kPropertyUpdate;
        continue;
      }
      // 2. The sections that hold properties.
      if (prop_depth < 0 && ns == kDav) {
        if (name == "allprop")
          out->all = true;
        if (name == "set")
          section = Section::kSet;
        if (name == "remove")
          section = Section::kRemove;
        if (name == "prop")
          prop_depth = depth;
        continue;
      }
      // 3. A property: a child of <prop>; what lies deeper is its value.
      if (depth == prop_depth + 1) {
        std::vector<DavProperty>& list = section == Section::kRemove ? out->removed : out->props;
        list.push_back(DavProperty{ns, name, std::string()});
        open = &list.back();
      }
    } else if (xml.isCharacters() && open) {
      open->value += Str(xml.text());
    } else if (xml.isEndElement()) {
      if (depth == prop_depth + 1)
        open = nullptr;
      if (depth == prop_depth)
        prop_depth = -1;
      --depth;
    }
  }
  if (xml.hasError()) {
    *error = "malformed XML: " + xml.errorString().toStdString();
    return false;
  }
  return true;
}

std::string XmlEscape(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

Multistatus::Multistatus()
    : xml_(R"(<?xml version="1.0" encoding="utf-8"?><d:multistatus xmlns:d="DAV:">)") {}

void Multistatus::Add(const std::string& href, const std::vector<DavProperty>& found,
                      const std::vector<DavProperty>& missing,
                      const std::vector<DavProperty>& conflicted) {
  xml_ += "<d:response><d:href>" + XmlEscape(href) + "</d:href>";
  AppendPropstat(found, "HTTP/1.1 200 OK", &xml_);
  AppendPropstat(missing, "HTTP/1.1 404 Not Found", &xml_);
  AppendPropstat(conflicted, "HTTP/1.1 409 Conflict", &xml_);
  xml_ += "</d:response>";
}

std::string Multistatus::Finish() {
  return xml_ + "</d:multistatus>";
}

void Multistatus::AppendPropstat(const std::vector<DavProperty>& props, const char* status,
                                 std::string* out) {
  if (props.empty())
    return;
  *out += "<d:propstat><d:prop>";
  for (const DavProperty& prop : props) {
    std::string tag =
        prop.ns == kDav ? "d:" + prop.name : prop.name + " xmlns=\"" + XmlEscape(prop.ns) + "\"";
    std::string close = prop.ns == kDav ? "d:" + prop.name : prop.name;
    *out +=
        prop.value.empty() ? "<" + tag + "/>" : "<" + tag + ">" + prop.value + "</" + close + ">";
  }
  *out += std::string("</d:prop><d:status>") + status + "</d:status></d:propstat>";
}

}  // namespace emulators
