#include "core/URLProcessorResult.h"

const char* ToString(URLProcessorResult result) {
  switch (result) {
    case URLProcessorResult::OK:
      return "OK";
    case URLProcessorResult::STOPPED:
      return "STOPPED";
    case URLProcessorResult::NETWORK_FAILED:
      return "NETWORK_FAILED";
    case URLProcessorResult::TRANSFER_FAILED:
      return "TRANSFER_FAILED";
    case URLProcessorResult::CREATED:
      return "CREATED";
    case URLProcessorResult::ACCEPTED:
      return "ACCEPTED";
    case URLProcessorResult::NO_CONTENT:
      return "NO_CONTENT";
    case URLProcessorResult::FORBIDDEN:
      return "FORBIDDEN";
    case URLProcessorResult::NOT_FOUND:
      return "NOT_FOUND";
    case URLProcessorResult::MULTI_STATUS:
      return "MULTI_STATUS";
    case URLProcessorResult::BLOCKED:
      return "BLOCKED";
    case URLProcessorResult::PARTIAL_CONTENT:
      return "PARTIAL_CONTENT";
    case URLProcessorResult::HTTP_FAILED:
      return "HTTP_FAILED";
  }
  return "Unknown type";
}

std::ostream& operator<<(std::ostream& out, URLProcessorResult result) {
  return out << ToString(result);
}

URLProcessorResult ResultFromHttpCode(int http_code) {
  switch (http_code) {
    case 201:
      return URLProcessorResult::CREATED;
    case 202:
      return URLProcessorResult::ACCEPTED;
    case 204:
      return URLProcessorResult::NO_CONTENT;
    case 206:
      return URLProcessorResult::PARTIAL_CONTENT;
    case 207:
      return URLProcessorResult::MULTI_STATUS;
    case 403:
      return URLProcessorResult::FORBIDDEN;
    case 404:
      return URLProcessorResult::NOT_FOUND;
    case 451:
      return URLProcessorResult::BLOCKED;
    default:
      break;
  }
  return http_code >= 200 && http_code < 300 ? URLProcessorResult::OK
                                             : URLProcessorResult::HTTP_FAILED;
}
