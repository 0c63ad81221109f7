#include "support/Fetch.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>

namespace test {

std::string Answer::Header(const std::string& name) const {
  for (std::size_t start = 0; start < headers.size();) {
    const std::size_t end = std::min(headers.find('\n', start), headers.size());
    const std::string line = headers.substr(start, end - start);
    start = end + 1;
    if (line.size() > name.size() && line[name.size()] == ':' &&
        strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
      const std::size_t first = line.find_first_not_of(' ', name.size() + 1);
      const std::size_t last = line.find_last_not_of("\r ");
      return first == std::string::npos || last < first ? std::string()
                                                        : line.substr(first, last - first + 1);
    }
  }
  return std::string();
}

Answer Fetch(const std::string& verb, const std::string& url, const std::string& token,
             const std::string& body, const std::string& range, const std::string& header) {
  Answer answer;
  CURL* curl = curl_easy_init();
  curl_slist* headers = nullptr;
  if (!token.empty())
    headers = curl_slist_append(headers, ("Authorization: " + token).c_str());
  if (!range.empty())
    headers = curl_slist_append(headers, ("Range: " + range).c_str());
  for (std::size_t start = 0; start < header.size();) {
    std::size_t end = std::min(header.find('\n', start), header.size());
    headers = curl_slist_append(headers, header.substr(start, end - start).c_str());
    start = end + 1;
  }
  auto append = +[](char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  };
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, verb.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
  if (!body.empty()) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer.headers);
  answer.code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return answer;
}

}  // namespace test
