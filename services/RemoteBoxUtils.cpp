#include "services/RemoteBoxUtils.h"

#include <QDateTime>

#include <random>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"
#include "core/PercentEncoding.h"
#include "core/StringUtils.h"

namespace rest_api {
namespace {

constexpr int kMaxRateLimitedTries = 20;
constexpr std::int64_t kPauseMinMs = 1000;
constexpr int kPauseSpreadMs = 1500;

std::string BoxCode(const BoxAnswer& answer) {
  if (!answer.json)
    return std::string();
  auto code = answer.json->get_child_optional("code");
  return code && code->empty() ? code->data() : std::string();
}

int RandomSpreadMs() {
  thread_local std::minstd_rand generator(std::random_device{}());
  return static_cast<int>(generator() % kPauseSpreadMs);
}

}  // namespace

BoxAnswer SendJsonRequest(URLProcessor& processor, const URLProcessor::Request& request) {
  return ReadAnswer(processor, processor.Send(request));
}

BoxAnswer SendJsonUpload(URLProcessor& processor, const URLProcessor::Request& request,
                         const std::uint8_t* data, std::size_t size) {
  bool sent = processor.BeginUpload(request, size);
  if (sent && size > 0) {
    OutputStream::Result written =
        processor.GetOutputStream()->Write(data, static_cast<std::uint32_t>(size));
    sent = written == OutputStream::Result::OK || written == OutputStream::Result::END ||
           processor.GetResponseCode() != 0;
  }
  return ReadAnswer(processor, sent);
}

BoxAnswer ReadAnswer(URLProcessor& processor, bool sent) {
  BoxAnswer answer;
  std::string body;
  bool complete = false;
  if (sent) {
    InputStream* stream = processor.GetInputStream();
    std::uint8_t block[16384];
    std::uint32_t done = 0;
    InputStream::Result read = InputStream::Result::OK;
    while (body.size() <= kMaxAnswerBytes &&
           (read = stream->Read(block, sizeof(block), &done)) == InputStream::Result::OK) {
      body.append(reinterpret_cast<const char*>(block), done);
    }
    complete = read == InputStream::Result::END;
  }
  answer.transfer = processor.Finish();
  answer.code = processor.GetResponseCode();
  answer.retry_after = GetValueFromHTTPHeaders(processor.GetResponseHeaders(), "Retry-After", true);
  answer.empty_body = body.empty();
  utils::json::json_tree tree;
  if (complete && !body.empty() && utils::json::Parse(body, &tree))
    answer.json = std::move(tree);
  if (!URLProcessor::IsSuccessHttpCode(answer.code) || IsNetworkErrorResult(answer.transfer)) {
    LOG_INFO << "Failed get resourse.";
  }
  return answer;
}

FileSystem::Result GetResultFromBoxAnswer(const BoxAnswer& answer) {
  // 1. How the transfer ended.
  if (answer.transfer == URLProcessor::Result::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  if (IsNetworkErrorResult(answer.transfer) || answer.code == 0)
    return FileSystem::FAILED;
  if (URLProcessor::IsSuccessHttpCode(answer.code))
    return FileSystem::SUCCEEDED;
  // 2. Box's error, by code and status.
  if (!answer.json) {
    LOG_WARNING << "Failed to read JSON.";
    LOG_WARNING << "Last response code: " << answer.code;
  }
  const std::string code = BoxCode(answer);
  switch (answer.code) {
    case 400:
      if (code == "item_name_too_long")
        return FileSystem::NAME_TOO_LONG;
      return code == "item_name_invalid" ? FileSystem::BADNAM : FileSystem::FAILED;
    case 401:
      LOG_WARNING << "Authorization expired.";
      return FileSystem::AUTH_INVALID;
    case 403:
      return code == "storage_limit_exceeded" ? FileSystem::NO_SPACE : FileSystem::ACCESS_DENIED;
    case 404:
      return code == "not_found" ? FileSystem::CONFLICT : FileSystem::FAILED;
    case 409:
      return code == "item_name_in_use" || code == "operation_blocked_temporary" ||
                     code == "tuple_already_exists"
                 ? FileSystem::CONFLICT
                 : FileSystem::FAILED;
    case 412:
      LOG_WARNING << "Precondition failed.";
      return FileSystem::CONFLICT;
    default:
      return FileSystem::FAILED;
  }
}

bool CheckUploadedPart(const BoxAnswer& answer) {
  if (answer.code == 200 || answer.code == 201)
    return true;
  LOG_WARNING << "Failed upload part of file.";
  return false;
}

void RateLimitGate::Raise() {
  LOG_INFO << "Rate limit.";
  raised_.exchange(true);
}

bool RateLimitGate::PauseIfLimited(const std::atomic<bool>* stop) {
  if (raised_.load()) {
    LOG_INFO << "Rate limit, has to sleep before run query.";
    utils::GetClock().SleepMs(kPauseMinMs + RandomSpreadMs(), stop);
  }
  return stop && stop->load();
}

BoxAnswer SendThroughGate(URLProcessor& processor, const URLProcessor::Request& request,
                          RateLimitGate* gate, const std::atomic<bool>* stop) {
  BoxAnswer answer;
  for (int attempt = 0; attempt < kMaxRateLimitedTries; ++attempt) {
    if (gate->PauseIfLimited(stop)) {
      answer.transfer = URLProcessor::Result::STOPPED;
      return answer;
    }
    answer = SendJsonRequest(processor, request);
    if (answer.code != 429) {
      gate->Lower();
      return answer;
    }
    gate->Raise();
  }
  return answer;
}

FileSystem::Result ForEachItemsPage(URLProcessor& processor, const std::string& url,
                                    RateLimitGate* gate, const std::atomic<bool>* stop,
                                    const std::function<bool(const BoxItemsPage&)>& on_page) {
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString(url);
  for (;;) {
    // 1. One page.
    BoxAnswer answer = SendThroughGate(processor, request, gate, stop);
    FileSystem::Result result = GetResultFromBoxAnswer(answer);
    if (result != FileSystem::SUCCEEDED)
      return result;
    BoxItemsPage page;
    if (!answer.json || !ParseBoxItemsPage(*answer.json, &page)) {
      LOG_WARNING << "Failed parse answer: " << url;
      return FileSystem::FAILED;
    }
    if (!on_page(page))
      return FileSystem::SUCCEEDED;
    // 2. The next one, as the server pages.
    std::string next;
    if (!page.next_marker.empty()) {
      next = url + "&marker=" + utils::PercentEncoded(page.next_marker, false);
    } else if (page.total_count && page.entries > 0 &&
               page.offset + page.entries < *page.total_count) {
      next = url + "&offset=" + std::to_string(page.offset + page.entries);
    } else {
      return FileSystem::SUCCEEDED;
    }
    request.url = DispatcherUrl::FromString(next);
  }
}

std::string JsonQuoted(const std::string& text) {
  return utils::JSONEncodedString(text, true);
}

std::string NameAndParentJson(const std::string& name, const std::string& parent_id,
                              const std::string& more) {
  return "{\"name\":" + JsonQuoted(name) + ",\"parent\":{\"id\":" + JsonQuoted(parent_id) + "}" +
         more + "}";
}

std::string BoxTimeText(std::uint64_t seconds) {
  return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(seconds), Qt::UTC)
      .toString(Qt::ISODate)
      .toStdString();
}

}  // namespace rest_api
