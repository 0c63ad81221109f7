// URLProcessorResult: how a request ended, as the transport sees it.
//
// One value folds the outcome of the transfer together with the class of the HTTP answer, so that
// an adapter can tell "the server said 201" from "the connection dropped" with one comparison.
// The numbers are part of the adapters' contracts and never change:
//
//   value  name             meaning
//   0      OK               a 2xx answer other than those below (200 above all)
//   1      STOPPED          Stop() broke the request off
//   2      NETWORK_FAILED   no answer: connect refused, DNS, time-out, reset before the answer
//   3      TRANSFER_FAILED  the exchange broke after it began (TLS refused, body cut short, a write
//                           failed mid-upload); it counts like a network failure
//   4      CREATED          201
//   5      ACCEPTED         202
//   6      NO_CONTENT       204
//   7      FORBIDDEN        403
//   8      NOT_FOUND        404
//   9      MULTI_STATUS     207
//   10     BLOCKED          451: the service blocks the content
//   11     PARTIAL_CONTENT  206
//   12     HTTP_FAILED      any other answer that is not a success (3xx, 4xx, 5xx); the code tells
//
// A result prints by its name on a log stream.
#pragma once

#include <cstdint>
#include <ostream>

enum class URLProcessorResult : std::int32_t {
  OK = 0,
  STOPPED = 1,
  NETWORK_FAILED = 2,
  TRANSFER_FAILED = 3,
  CREATED = 4,
  ACCEPTED = 5,
  NO_CONTENT = 6,
  FORBIDDEN = 7,
  NOT_FOUND = 8,
  MULTI_STATUS = 9,
  BLOCKED = 10,
  PARTIAL_CONTENT = 11,
  HTTP_FAILED = 12,
};

const char* ToString(URLProcessorResult result);
std::ostream& operator<<(std::ostream& out, URLProcessorResult result);

// The result a completed transfer gets from its HTTP code.
URLProcessorResult ResultFromHttpCode(int http_code);

// The transfer went through and the server answered with a 2xx.
inline bool IsSuccessResult(URLProcessorResult result) {
  switch (result) {
    case URLProcessorResult::OK:
    case URLProcessorResult::CREATED:
    case URLProcessorResult::ACCEPTED:
    case URLProcessorResult::NO_CONTENT:
    case URLProcessorResult::MULTI_STATUS:
    case URLProcessorResult::PARTIAL_CONTENT:
      return true;
    default:
      return false;
  }
}

// Network failures: the request may go through if tried again later.
inline bool IsNetworkErrorResult(URLProcessorResult result) {
  return result == URLProcessorResult::NETWORK_FAILED ||
         result == URLProcessorResult::TRANSFER_FAILED;
}
