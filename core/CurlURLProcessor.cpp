#include "core/CurlURLProcessor.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <mutex>
#include <string_view>

#include "core/Cookie.h"
#include "core/LoggerWrapper.h"

namespace {

constexpr char kDefaultUserAgent[] = "corvane/1.0";
// What Finish() reads and drops of an unread body to keep the connection; beyond it the
// connection is closed instead.
constexpr std::size_t kMaxDrainBytes = 1024 * 1024;

void InitCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool HasHeader(const std::vector<std::string>& headers, const char* name) {
  std::size_t length = std::strlen(name);
  for (const std::string& line : headers) {
    if (line.size() >= length && strncasecmp(line.c_str(), name, length) == 0 &&
        (line.size() == length || line[length] == ':' || line[length] == ';')) {
      return true;
    }
  }
  return false;
}

bool IsVerb(const std::string& verb, const char* name) {
  return strcasecmp(verb.c_str(), name) == 0;
}

long CurlHttpVersion(int setting) {
  switch (setting) {
    case URLProcessor::kHttp11:
      return CURL_HTTP_VERSION_1_1;
    case URLProcessor::kHttp2Tls:
      return CURL_HTTP_VERSION_2TLS;
    default:
      return CURL_HTTP_VERSION_NONE;
  }
}

std::string RangeText(const URLProcessor::Range& range) {
  std::string text = std::to_string(range.first) + "-";
  if (range.last) {
    text += std::to_string(*range.last);
  }
  return text;
}

}  // namespace

class CurlURLProcessor::Body : public InputStream {
 public:
  explicit Body(CurlURLProcessor* owner) : owner_(owner) {}
  Result Read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override {
    return owner_->ReadBody(buffer, size, done);
  }

 private:
  CurlURLProcessor* owner_;
};

class CurlURLProcessor::Upload : public OutputStream {
 public:
  explicit Upload(CurlURLProcessor* owner) : owner_(owner) {}
  Result Write(const std::uint8_t* data, std::uint32_t size) override {
    return owner_->WriteBody(data, size);
  }

 private:
  CurlURLProcessor* owner_;
};

CurlURLProcessor::CurlURLProcessor(std::shared_ptr<const core::cookie::Cookie> cookie,
                                   bool verify_tls)
    : cookie_(std::move(cookie)),
      verify_tls_(verify_tls),
      body_(std::make_unique<Body>(this)),
      upload_(std::make_unique<Upload>(this)),
      user_agent_(kDefaultUserAgent) {
  InitCurlOnce();
  easy_ = curl_easy_init();
  multi_ = curl_multi_init();
}

CurlURLProcessor::~CurlURLProcessor() {
  Detach();
  curl_slist_free_all(header_list_);
  curl_multi_cleanup(multi_);
  curl_easy_cleanup(easy_);
}

void CurlURLProcessor::Start() {
  stopped_ = false;
}

void CurlURLProcessor::Stop() {
  stopped_ = true;
  curl_multi_wakeup(multi_);
}

bool CurlURLProcessor::Open(std::string* response_headers) {
  external_headers_ = response_headers;
  return easy_ != nullptr && multi_ != nullptr;
}

URLProcessor::Result CurlURLProcessor::Close() {
  if (in_request_) {
    Abort(false);
    Finish();
  }
  external_headers_ = nullptr;
  return last_result_;
}

void CurlURLProcessor::SetNoResponseHeadersBuffer() {
  keep_headers_ = false;
}

void CurlURLProcessor::SetTimeoutSec(int seconds) {
  timeout_sec_ = seconds;
}

void CurlURLProcessor::SetHttpVersion(int setting) {
  http_version_ = setting;
}

void CurlURLProcessor::SetCompression(bool gzip) {
  gzip_ = gzip;
}

void CurlURLProcessor::SetUserAgent(const std::string& agent) {
  user_agent_ = agent;
}

std::string CurlURLProcessor::GetUserAgent() const {
  return user_agent_;
}

const std::string& CurlURLProcessor::GetResponseHeaders() const {
  return external_headers_ ? *external_headers_ : own_headers_;
}

bool CurlURLProcessor::Send(const Request& request) {
  if (!Begin(request, false, 0)) {
    return false;
  }
  Drive drive = DriveUntil([this] { return head_done_; });
  if (drive == Drive::kStopped) {
    Abort(true);
    return false;
  }
  return head_done_;
}

bool CurlURLProcessor::BeginUpload(const Request& request, std::uint64_t length) {
  if (!Begin(request, true, length)) {
    return false;
  }
  // Wait until curl asks for the body: the connection stands and a "100 Continue" (or a refusal
  // in its place) has come.
  Drive drive = DriveUntil([this] { return tx_paused_ || head_done_; });
  if (drive == Drive::kStopped) {
    Abort(true);
    return false;
  }
  return drive == Drive::kReady || head_done_ || curl_result_ == CURLE_OK;
}

OutputStream* CurlURLProcessor::GetOutputStream() {
  return upload_.get();
}

InputStream* CurlURLProcessor::GetInputStream() {
  return body_.get();
}

bool CurlURLProcessor::Begin(const Request& request, bool upload, std::uint64_t length) {
  // 1. Forget the previous request and the previous answer.
  if (in_request_) {
    Finish();
  }
  url_ = request.url.Url();
  std::string& head = external_headers_ ? *external_headers_ : own_headers_;
  head.clear();
  own_headers_.clear();
  in_request_ = true;
  transfer_done_ = aborted_by_stop_ = abandoned_ = upload_cut_ = false;
  curl_result_ = CURLE_OK;
  code_ = 0;
  head_done_ = head_redirects_ = refused_encoding_ = encoding_pending_ = false;
  tx_on_wire_at_head_ = 0;
  rx_.clear();
  rx_pos_ = 0;
  rx_paused_ = discard_body_ = false;
  drained_ = 0;
  received_ = 0;
  uploading_ = upload;
  tx_data_ = nullptr;
  tx_left_ = 0;
  tx_total_ = length;
  tx_sent_ = 0;
  tx_paused_ = false;
  if (stopped_) {
    aborted_by_stop_ = true;
    return false;
  }
  // 2. Set the handle up and hand it to the multi handle, which keeps the connections.
  Configure(request, upload, length);
  CURLMcode added = curl_multi_add_handle(multi_, easy_);
  if (added != CURLM_OK) {
    LOG_ERROR << "curl_multi_add_handle failed: " << curl_multi_strerror(added);
    transfer_done_ = true;
    curl_result_ = CURLE_FAILED_INIT;
    return false;
  }
  attached_ = true;
  return true;
}

void CurlURLProcessor::Configure(const Request& request, bool upload, std::uint64_t length) {
  curl_easy_reset(easy_);
  curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, error_);
  curl_easy_setopt(easy_, CURLOPT_USERAGENT, user_agent_.c_str());
  curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, CurlHttpVersion(http_version_));
  curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, 256L * 1024);
  curl_easy_setopt(easy_, CURLOPT_UPLOAD_BUFFERSIZE, 256L * 1024);
  curl_easy_setopt(easy_, CURLOPT_TCP_KEEPALIVE, 1L);
  if (timeout_sec_ > 0) {
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeout_sec_));
  }
  if (!verify_tls_) {
    curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (gzip_) {
    curl_easy_setopt(easy_, CURLOPT_ACCEPT_ENCODING, "gzip");
  }
  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlURLProcessor::OnHeader);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlURLProcessor::OnBody);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);

  // The verb and the body. Reads may be redirected (a download link on another host); curl drops
  // our "Authorization" header when the host changes.
  follow_redirects_ = IsVerb(request.verb, "GET") || IsVerb(request.verb, "HEAD");
  curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, follow_redirects_ ? 1L : 0L);
  curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, kMaxRedirects);
  if (upload) {
    curl_easy_setopt(easy_, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(length));
    curl_easy_setopt(easy_, CURLOPT_READFUNCTION, &CurlURLProcessor::OnUpload);
    curl_easy_setopt(easy_, CURLOPT_READDATA, this);
    curl_easy_setopt(easy_, CURLOPT_EXPECT_100_TIMEOUT_MS, 1000L);
    if (!IsVerb(request.verb, "PUT")) {
      curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request.verb.c_str());
    }
  } else if (IsVerb(request.verb, "HEAD")) {
    curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
  } else if (!request.body.empty() || IsVerb(request.verb, "POST") || IsVerb(request.verb, "PUT") ||
             IsVerb(request.verb, "PATCH")) {
    request_body_ = request.body;
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request_body_.size()));
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, request_body_.data());
    curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request.verb.c_str());
  } else if (!IsVerb(request.verb, "GET")) {
    curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request.verb.c_str());
  }
  if (request.range) {
    curl_easy_setopt(easy_, CURLOPT_RANGE, RangeText(*request.range).c_str());
  }

  // Credentials: a caller's own "Authorization" line wins.
  if (request.authorize && cookie_ && !HasHeader(request.headers, "Authorization")) {
    if (auto* account = dynamic_cast<const core::cookie::CookieWebDAVBase*>(cookie_.get())) {
      curl_easy_setopt(easy_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
      curl_easy_setopt(easy_, CURLOPT_USERNAME, account->GetUser().c_str());
      curl_easy_setopt(easy_, CURLOPT_PASSWORD, account->GetPassword().c_str());
    }
  }
  curl_slist_free_all(header_list_);
  header_list_ = BuildHeaderList(request, upload, length);
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, header_list_);
}

curl_slist* CurlURLProcessor::BuildHeaderList(const Request& request, bool upload,
                                              std::uint64_t length) {
  curl_slist* list = nullptr;
  auto add = [&list](const std::string& line) { list = curl_slist_append(list, line.c_str()); };
  for (const std::string& line : request.headers) {
    add(line);
  }
  if (!request.content_type.empty()) {
    add("Content-Type: " + request.content_type);
  } else if (!HasHeader(request.headers, "Content-Type")) {
    // Keeps curl from announcing a form for a body given in memory.
    add("Content-Type:");
  }
  if (!HasHeader(request.headers, "Expect")) {
    add(upload && length >= kExpectContinueFrom ? "Expect: 100-continue" : "Expect:");
  }
  if (request.authorize && !HasHeader(request.headers, "Authorization")) {
    if (auto* oauth = dynamic_cast<const core::cookie::CookieOAuth*>(cookie_.get())) {
      add("Authorization: " + oauth->GetScheme() + " " + oauth->GetToken());
    }
  }
  return list;
}

template <typename Ready>
CurlURLProcessor::Drive CurlURLProcessor::DriveUntil(Ready ready) {
  last_progress_ = std::chrono::steady_clock::now();
  for (;;) {
    if (stopped_) {
      return Drive::kStopped;
    }
    if (ready()) {
      return Drive::kReady;
    }
    if (transfer_done_) {
      return Drive::kDone;
    }
    int running = 0;
    curl_multi_perform(multi_, &running);
    CollectDone();
    if (ready()) {
      return Drive::kReady;
    }
    if (transfer_done_) {
      return Drive::kDone;
    }
    if (timeout_sec_ > 0 &&
        std::chrono::steady_clock::now() - last_progress_ > std::chrono::seconds(timeout_sec_)) {
      LOG_WARNING << "No progress for " << timeout_sec_ << " s, giving up on " << url_;
      Detach();
      transfer_done_ = true;
      curl_result_ = CURLE_OPERATION_TIMEDOUT;
      return Drive::kDone;
    }
    curl_multi_poll(multi_, nullptr, 0, poll_interval_ms_, nullptr);
  }
}

void CurlURLProcessor::CollectDone() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == easy_) {
      transfer_done_ = true;
      curl_result_ = message->data.result;
      if (curl_result_ != CURLE_OK) {
        LOG_WARNING << "Request " << url_ << " failed: " << curl_easy_strerror(message->data.result)
                    << " (" << error_ << ")";
      }
    }
  }
  if (transfer_done_) {
    if (code_ == 0) {
      long code = 0;
      curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &code);
      code_ = static_cast<int>(code);
    }
    Detach();
  }
}

void CurlURLProcessor::Detach() {
  if (attached_) {
    curl_multi_remove_handle(multi_, easy_);
    attached_ = false;
  }
}

void CurlURLProcessor::Unpause() {
  int mask = (rx_paused_ ? CURLPAUSE_RECV : 0) | (tx_paused_ ? CURLPAUSE_SEND : 0);
  curl_easy_pause(easy_, mask);
}

void CurlURLProcessor::Abort(bool stopped) {
  if (!transfer_done_) {
    Detach();
    transfer_done_ = true;
    aborted_by_stop_ = stopped;
    abandoned_ = !stopped;
  }
}

URLProcessor::Result CurlURLProcessor::Outcome() const {
  if (aborted_by_stop_ || stopped_) {
    return Result::STOPPED;
  }
  if (refused_encoding_ || EarlySuccess()) {
    return Result::TRANSFER_FAILED;
  }
  if (curl_result_ == CURLE_TOO_MANY_REDIRECTS) {
    return Result::HTTP_FAILED;
  }
  // An answer that came before the upload was all sent is the server's word on the request.
  bool early_answer = uploading_ && tx_sent_ < tx_total_;
  if (head_done_ && (curl_result_ == CURLE_OK || abandoned_ || early_answer)) {
    return ResultFromHttpCode(code_);
  }
  if (!head_done_ && !upload_cut_ && !(uploading_ && tx_sent_ > 0)) {
    return Result::NETWORK_FAILED;
  }
  return Result::TRANSFER_FAILED;
}

URLProcessor::Result CurlURLProcessor::Finish() {
  if (!in_request_) {
    return last_result_;
  }
  // 1. Read and drop a short rest of the answer so that the connection stays usable; an upload
  //    that was not sent in full cannot end well and is broken off.
  if (!transfer_done_) {
    if (uploading_ && tx_sent_ < tx_total_) {
      Abort(false);
      abandoned_ = head_done_;
      upload_cut_ = !head_done_;
    } else {
      discard_body_ = true;
      drained_ = rx_.size() - rx_pos_;
      rx_.clear();
      rx_pos_ = 0;
      if (rx_paused_ || tx_paused_) {
        rx_paused_ = tx_paused_ = false;
        Unpause();
      }
      Drive drive = DriveUntil([this] { return drained_ > kMaxDrainBytes; });
      if (drive == Drive::kStopped) {
        Abort(true);
      } else if (drive == Drive::kReady) {
        Abort(false);
      }
    }
  }
  // 2. Tell how it ended.
  in_request_ = false;
  last_result_ = Outcome();
  if (EarlySuccess()) {
    LOG_WARNING << "Answer " << code_ << " came when " << tx_on_wire_at_head_ << " of " << tx_total_
                << " bytes of the upload were sent; the upload failed: " << url_;
  }
  uploading_ = false;
  return last_result_;
}

bool CurlURLProcessor::EarlySuccess() const {
  // Bytes handed to curl may still sit in its buffer: only those on the wire when the answer came
  // can have been taken by the server.
  return uploading_ && head_done_ && IsSuccessHttpCode(code_) &&
         (tx_sent_ < tx_total_ || tx_on_wire_at_head_ < tx_total_);
}

bool CurlURLProcessor::AcceptsEncoding(std::string_view line) const {
  std::string value;
  for (char c : line.substr(line.find(':') + 1)) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') {
      value += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return value.empty() || value == "identity" || (gzip_ && value == "gzip");
}

void CurlURLProcessor::EndOfHead() {
  long code = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &code);
  bool followed = head_redirects_ && code >= 300 && code < 400;
  head_redirects_ = false;
  bool refused = encoding_pending_;
  encoding_pending_ = false;
  if (code < 200 || followed) {
    return;
  }
  code_ = static_cast<int>(code);
  head_done_ = true;
  curl_off_t on_wire = 0;
  curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &on_wire);
  tx_on_wire_at_head_ = static_cast<std::uint64_t>(on_wire);
  if (refused) {
    refused_encoding_ = true;
    LOG_WARNING << "Answer in a Content-Encoding that was not asked for; refused: " << url_;
  }
}

bool CurlURLProcessor::EarlyAnswerRead() const {
  // The transfer of an answer that came before the upload ended does not end by itself: curl
  // still waits for the body it was promised. The answer is whole when its length has come.
  if (!uploading_ || !head_done_ || tx_sent_ == tx_total_) {
    return false;
  }
  curl_off_t length = -1;
  curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  return length >= 0 && received_ >= static_cast<std::uint64_t>(length);
}

InputStream::Result CurlURLProcessor::ReadBody(std::uint8_t* buffer, std::uint32_t size,
                                               std::uint32_t* done) {
  *done = 0;
  if (!in_request_) {
    return InputStream::Result::FAILED;
  }
  for (;;) {
    if (stopped_) {
      Abort(true);
      return InputStream::Result::STOPPED;
    }
    std::size_t buffered = rx_.size() - rx_pos_;
    if (buffered > 0) {
      std::size_t n = std::min<std::size_t>(buffered, size);
      std::memcpy(buffer, rx_.data() + rx_pos_, n);
      rx_pos_ += n;
      if (rx_pos_ == rx_.size()) {
        rx_.clear();
        rx_pos_ = 0;
      }
      *done = static_cast<std::uint32_t>(n);
      return InputStream::Result::OK;
    }
    if (transfer_done_ || EarlyAnswerRead()) {
      if (aborted_by_stop_) {
        return InputStream::Result::STOPPED;
      }
      if (!transfer_done_) {
        return InputStream::Result::END;
      }
      return curl_result_ == CURLE_OK && !abandoned_ ? InputStream::Result::END
                                                     : InputStream::Result::FAILED;
    }
    if (rx_paused_) {
      rx_paused_ = false;
      Unpause();
    }
    if (DriveUntil([this] { return rx_.size() > rx_pos_ || EarlyAnswerRead(); }) ==
        Drive::kStopped) {
      Abort(true);
      return InputStream::Result::STOPPED;
    }
  }
}

OutputStream::Result CurlURLProcessor::WriteBody(const std::uint8_t* data, std::uint32_t size) {
  if (!in_request_ || !uploading_) {
    return OutputStream::Result::FAILED;
  }
  if (stopped_) {
    Abort(true);
    return OutputStream::Result::STOPPED;
  }
  if (head_done_ || transfer_done_ || size > tx_total_ - tx_sent_) {
    return OutputStream::Result::FAILED;
  }
  tx_data_ = data;
  tx_left_ = size;
  if (tx_paused_) {
    tx_paused_ = false;
    Unpause();
  }
  Drive drive = DriveUntil([this] { return tx_left_ == 0 || head_done_; });
  bool consumed = tx_left_ == 0;
  tx_data_ = nullptr;
  tx_left_ = 0;
  if (drive == Drive::kStopped) {
    Abort(true);
    return OutputStream::Result::STOPPED;
  }
  if (!consumed) {
    return OutputStream::Result::FAILED;
  }
  return tx_sent_ == tx_total_ ? OutputStream::Result::END : OutputStream::Result::OK;
}

std::size_t CurlURLProcessor::OnHeader(char* data, std::size_t size, std::size_t count,
                                       void* self_pointer) {
  auto* self = static_cast<CurlURLProcessor*>(self_pointer);
  std::size_t length = size * count;
  std::string_view line(data, length);
  self->last_progress_ = std::chrono::steady_clock::now();
  if (self->keep_headers_) {
    std::string& head = self->external_headers_ ? *self->external_headers_ : self->own_headers_;
    head.append(line);
  }
  if (line.size() > 9 && strncasecmp(data, "Location:", 9) == 0) {
    self->head_redirects_ = self->follow_redirects_;
  }
  if (line.size() > 17 && strncasecmp(data, "Content-Encoding:", 17) == 0 &&
      !self->AcceptsEncoding(line)) {
    self->encoding_pending_ = true;
  }
  if (line == "\r\n" || line == "\n") {
    self->EndOfHead();
    if (self->refused_encoding_) {
      return 0;
    }
  }
  return length;
}

std::size_t CurlURLProcessor::OnBody(char* data, std::size_t size, std::size_t count,
                                     void* self_pointer) {
  auto* self = static_cast<CurlURLProcessor*>(self_pointer);
  std::size_t length = size * count;
  self->last_progress_ = std::chrono::steady_clock::now();
  if (self->discard_body_) {
    self->drained_ += length;
    return length;
  }
  if (self->rx_.size() - self->rx_pos_ >= kMaxBufferedBytes) {
    self->rx_paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  self->rx_.append(data, length);
  self->received_ += length;
  return length;
}

std::size_t CurlURLProcessor::OnUpload(char* buffer, std::size_t size, std::size_t count,
                                       void* self_pointer) {
  auto* self = static_cast<CurlURLProcessor*>(self_pointer);
  std::size_t n = std::min(size * count, self->tx_left_);
  if (n == 0) {
    if (self->tx_sent_ >= self->tx_total_) {
      return 0;
    }
    self->tx_paused_ = true;
    return CURL_READFUNC_PAUSE;
  }
  std::memcpy(buffer, self->tx_data_, n);
  self->tx_data_ += n;
  self->tx_left_ -= n;
  self->tx_sent_ += n;
  self->last_progress_ = std::chrono::steady_clock::now();
  return n;
}
