// DispatcherUrl: a URL under construction.
//
//   DispatcherUrl url = DispatcherUrl::FromString("https://dav.example.com/remote.php/dav");
//   url.Append("/folder name/file#1.txt", DispatcherUrl::ValueEncodingMode::kPath);
//   url.AppendParam("fields", "id,name", DispatcherUrl::ValueEncodingMode::kQueryValue);
//   url.Url();  // ".../folder%20name/file%231.txt?fields=id%2Cname"
#pragma once

#include <string>

class DispatcherUrl {
 public:
  enum class ValueEncodingMode {
    kAsIs,        // the text is already encoded
    kPath,        // percent-encoded, "/" kept: a path of segments
    kSegment,     // percent-encoded, "/" too: one segment
    kQueryValue,  // percent-encoded for a query value
  };

  DispatcherUrl() = default;
  static DispatcherUrl FromString(const std::string& url);

  // Appends text to the path (before any query); no separator is added.
  DispatcherUrl& Append(const std::string& segment, ValueEncodingMode mode);
  // Adds "key=value" to the query, with "?" or "&" as needed.
  DispatcherUrl& AppendParam(const char* key, const std::string& value, ValueEncodingMode mode);

  bool IsEmpty() const { return base_.empty() && query_.empty(); }
  std::string Url() const;

 private:
  std::string base_;   // scheme, host and path
  std::string query_;  // without the leading "?"
};
