// WebDavSurface: the account served as a WebDAV tree (RFC 4918) below one path of the emulator,
// for any dialect that speaks DAV. A dialect gives its service's own properties and answers
// through the options.
//
//   emulators::WebDavOptions options;
//   options.prefix = "/webdav";
//   options.live_property = [](const Item& item, const DavProperty& asked, std::string* value) {
//     ...  // a service's own property, e.g. a SHA-256 beside the etag
//   };
//   surface_ = std::make_unique<emulators::WebDavSurface>(router, options);
//   surface_->Install();
//
// Uploads are hashed as they come; a body above the server's keep limit leaves only its size and
// digests in the account (a GET of it is 404, as of any file whose bytes weren't kept).
// Verbs: PROPFIND (Depth 0 or 1; infinity is refused with 403), PROPPATCH (dead properties are
// kept as Item::properties under "{namespace}name"), GET with Range, PUT, MKCOL, MOVE and
// DELETE (to the trash), with the status codes RFC 4918 gives: 409 for a missing parent, 405
// for MKCOL over an existing item, 412 for a failed If-Match, If-None-Match or "Overwrite: F".
// Etags are the MD5 of the content in lower-case hex, without quotes.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "emulators/DavXml.h"
#include "emulators/Dialect.h"

namespace emulators {

struct WebDavOptions {
  std::string prefix;  // the host's path on the emulator, "" for the root
  // Further paths below the prefix that stand for the account's root ("/disk").
  std::vector<std::string> root_aliases;
  // A live property of the service beyond RFC 4918's: true with its value (XML text) when the
  // item has it.
  std::function<bool(const Item&, const DavProperty& asked, std::string* value)> live_property;
  // A PROPPATCH of a property the service acts on: the status of the change, with the value to
  // report; 0 when the property is a dead one to keep.
  std::function<int(const Item&, const DavProperty& prop, bool set, std::string* value)>
      patch_property;
  // A GET of a folder, which WebDAV leaves to the server; null: 403.
  std::function<HttpResponse(const HttpRequest&, const Item& folder, const std::string& path)>
      folder_get;
  // The largest file a PUT may make (413 on its head); 0 for no limit.
  std::uint64_t max_file_size = 0;
  // A PUT's "Etag" (MD5) and "Sha256" headers are checked against the body (400 when they
  // differ), and content that the account holds already is taken on the head with 201.
  bool hash_headers = false;
};

class WebDavSurface {
 public:
  WebDavSurface(Router& router, WebDavOptions options);
  void Install();

 private:
  struct Target {
    std::string path;       // below the account's root, "" for the root
    std::string href_base;  // what the request's hrefs start with (prefix and alias)
  };

  bool Resolve(const std::string& request_path, Target* out) const;
  std::string Href(const Target& target, const std::string& path, bool folder) const;

  HttpResponse Propfind(const HttpRequest& request);
  HttpResponse Proppatch(const HttpRequest& request);
  HttpResponse Get(const HttpRequest& request);
  HttpResponse PutHead(const HttpRequest& request);
  HttpResponse Put(const HttpRequest& request);
  HttpResponse Mkcol(const HttpRequest& request);
  HttpResponse Move(const HttpRequest& request);
  HttpResponse Delete(const HttpRequest& request);

  // The properties of one item as asked: found ones with their values, missing ones bare.
  void Properties(const Item& item, const DavBody& asked, std::vector<DavProperty>* found,
                  std::vector<DavProperty>* missing) const;
  std::optional<std::string> Property(const Item& item, const DavProperty& asked) const;
  // Where a PUT writes: 0 with the parent and the file there (if any), else the refusing status.
  int PlanPut(const HttpRequest& request, std::string* parent_id,
              std::optional<Item>* existing) const;
  Router& router_;
  WebDavOptions options_;
};

// A file of the account with these digests and size whose bytes can be had: what a service that
// deduplicates takes in place of an upload.
std::optional<Item> FindKnownContent(const CloudAccount& account, const std::string& md5,
                                     const std::string& sha256, std::uint64_t size);
// `known`'s bytes as the file `name` in the folder `parent_id`, over `existing` if given.
AccountError PutKnownContent(CloudAccount& account, const std::string& parent_id,
                             const std::string& name, const std::optional<Item>& existing,
                             const Item& known);

// The body of an upload (read in BodyMode::kStoreBounded) as the file `name` in `parent_id`, over
// `existing` if given: its bytes when the server kept them, else its size and digests.
AccountError PutUploadedBytes(CloudAccount& account, const HttpRequest& upload,
                              const std::string& parent_id, const std::string& name,
                              const std::optional<Item>& existing);

// "/a//b/" as "a/b"; false for a path with a "." or ".." segment.
bool CleanPath(const std::string& raw, std::string* path);
// "a/b/c" as "a/b" and "c"; "c" as "" and "c".
std::string ParentPath(const std::string& path);
std::string LeafName(const std::string& path);

// An account path percent-decoded, '+' kept as it is (a path is no form field).
std::string DecodePath(const std::string& encoded);
// Each segment percent-encoded, the '/' between them kept.
std::string EncodePath(const std::string& path);
// "Sun, 06 Nov 1994 08:49:37 GMT".
std::string HttpDate(std::int64_t ms);

}  // namespace emulators
