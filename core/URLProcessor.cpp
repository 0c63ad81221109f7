#include "core/URLProcessor.h"

#include <cctype>
#include <exception>
#include <sstream>

#include <boost/property_tree/ptree.hpp>

#include "core/Json.h"
#include "core/LoggerWrapper.h"

namespace {

bool NameMatches(std::string_view line, const std::string& name) {
  if (line.size() <= name.size() || line[name.size()] != ':') {
    return false;
  }
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(line[i])) !=
        std::tolower(static_cast<unsigned char>(name[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

bool ParseNumber(std::string_view text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19) {
    return false;
  }
  *value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    *value = *value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return true;
}

// "bytes first-last/total" with total possibly "*".
struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  boost::optional<std::uint64_t> total;
};

boost::optional<ContentRange> ParseContentRange(std::string_view value) {
  constexpr std::string_view kUnit = "bytes ";
  if (value.substr(0, kUnit.size()) != kUnit) {
    return boost::none;
  }
  value.remove_prefix(kUnit.size());
  std::size_t dash = value.find('-');
  std::size_t slash = value.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) {
    return boost::none;
  }
  ContentRange range;
  if (!ParseNumber(Trimmed(value.substr(0, dash)), &range.first) ||
      !ParseNumber(Trimmed(value.substr(dash + 1, slash - dash - 1)), &range.last) ||
      range.last < range.first) {
    return boost::none;
  }
  std::string_view total = Trimmed(value.substr(slash + 1));
  if (total != "*") {
    std::uint64_t number = 0;
    if (!ParseNumber(total, &number)) {
      return boost::none;
    }
    range.total = number;
  }
  return range;
}

}  // namespace

std::string GetValueFromHTTPHeaders(const std::string& headers, const std::string& name,
                                    bool last) {
  std::string found;
  std::string_view rest(headers);
  while (!rest.empty()) {
    std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (NameMatches(line, name)) {
      found = std::string(Trimmed(line.substr(name.size() + 1)));
      if (!last) {
        break;
      }
    }
  }
  return found;
}

std::string GetTotalPayloadSizeFromHTTPHeaders(const std::string& headers) {
  std::string content_range = GetValueFromHTTPHeaders(headers, "Content-Range", true);
  if (!content_range.empty()) {
    boost::optional<ContentRange> range = ParseContentRange(content_range);
    if (range && range->total) {
      return std::to_string(*range->total);
    }
  }
  return GetValueFromHTTPHeaders(headers, "Content-Length", true);
}

bool URLProcessor::CheckRangeInResponseHeaders(const std::string& headers, std::uint64_t first,
                                               boost::optional<std::uint64_t> last,
                                               boost::optional<std::uint64_t> total) {
  boost::optional<ContentRange> range =
      ParseContentRange(GetValueFromHTTPHeaders(headers, "Content-Range", true));
  return range && range->first == first && (!last || range->last == *last) &&
         (!total || range->total == total);
}

std::tuple<std::unique_ptr<utils::json::json_tree>, URLProcessor::Result>
URLProcessor::GetJSONAndResult(const DispatcherUrl& url, const std::vector<std::string>& headers) {
  Request request;
  request.url = url;
  request.headers = headers;
  std::string body;
  StreamResult read = StreamResult::FAILED;
  if (Send(request)) {
    read = GetInputStream()->ReadAllTo(&body, 4096);
  }
  Result result = Finish();
  std::unique_ptr<utils::json::json_tree> tree;
  if (read != StreamResult::END) {
    // A page cut short may still parse; the caller would take it for the whole.
    if (IsSuccessResult(result)) {
      LOG_WARNING << "Answer of " << GetUrl() << " was not read whole: " << read;
      result = Result::TRANSFER_FAILED;
    }
    return {std::move(tree), result};
  }
  if (!body.empty()) {
    auto parsed = std::make_unique<utils::json::json_tree>();
    std::string error;
    if (utils::json::Parse(body, parsed.get(), &error)) {
      tree = std::move(parsed);
    } else {
      LOG_WARNING << "Answer of " << GetUrl() << " is not JSON: " << error;
    }
  }
  return {std::move(tree), result};
}
