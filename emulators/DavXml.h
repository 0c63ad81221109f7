// DavXml: the XML of WebDAV requests and answers as an emulator needs it: the property names a
// PROPFIND asks for, the values a PROPPATCH sets or removes, and the multistatus answer.
//
//   emulators::DavBody body;
//   std::string error;
//   if (!emulators::ParseDavBody(request.body, &body, &error)) return 400;
//   emulators::Multistatus answer;
//   answer.Add("/webdav/a.txt", {{"DAV:", "getcontentlength", "5"}}, {});
//   std::string xml = answer.Finish();
//
// A parsed body's values are plain text; the values given to Multistatus are XML as they are to
// stand in the answer (a caller escapes plain text with XmlEscape).
#pragma once

#include <string>
#include <vector>

namespace emulators {

struct DavProperty {
  std::string ns;    // the namespace URI, "DAV:" for the standard ones
  std::string name;  // the local name
  std::string value;

  bool Is(const char* in_ns, const char* local) const { return ns == in_ns && name == local; }
};

struct DavBody {
  enum class Root { kNone, kPropfind, kPropertyUpdate };
  Root root = Root::kNone;           // kNone: no body at all
  bool all = false;                  // a PROPFIND with <allprop/>, or none with no body
  std::vector<DavProperty> props;    // asked for, or set by a PROPPATCH
  std::vector<DavProperty> removed;  // removed by a PROPPATCH
};

// False with `error` set for malformed XML or a document that is neither a DAV propfind nor a
// propertyupdate. An empty body is a propfind of all properties.
bool ParseDavBody(const std::string& body, DavBody* out, std::string* error);

std::string XmlEscape(const std::string& text);

// A 207 body: one <response> per resource, its found properties under "200 OK", the missing
// ones under "404 Not Found" and those whose change failed under "409 Conflict".
class Multistatus {
 public:
  Multistatus();
  void Add(const std::string& href, const std::vector<DavProperty>& found,
           const std::vector<DavProperty>& missing,
           const std::vector<DavProperty>& conflicted = std::vector<DavProperty>());
  std::string Finish();

 private:
  static void AppendPropstat(const std::vector<DavProperty>& props, const char* status,
                             std::string* out);
  std::string xml_;
};

}  // namespace emulators
