// What every adapter of the WebDAV family shares about the protocol: the one table from an HTTP
// code to a FileSystem::Result, and the server address behind an account's credentials.
//
//   FileSystem::Result result = GetResultFromHttpCodeOrFailed(processor->GetResponseCode());
//   DispatcherUrl base = GetBaseUrlFromCookie(processor.get());
#pragma once

#include <cstdint>
#include <string>

#include "core/DispatcherUrl.h"
#include "core/FileSystem.h"

class InputStream;
class URLProcessor;

// pCloud's WebDAV hosts answer large listings slowly: their requests get a longer time-out.
constexpr const char* kPCloudWebDavHost = "webdav.pcloud.com";
constexpr const char* kPCloudEuropeWebDavHost = "ewebdav.pcloud.com";
constexpr int kRequestTimeoutSec = 90;
constexpr int kPCloudRequestTimeoutSec = 150;

// Any 2xx is SUCCEEDED; the codes a DAV server uses for refusals have their own answer.
FileSystem::Result GetResultFromHttpCode(int code);
// For a transfer that went wrong whatever its code said: a 2xx gives FAILED.
FileSystem::Result GetResultFromHttpCodeOrFailed(int code);

// The server's URL from the processor's credentials (a core::cookie::CookieWebDAVBase); empty when
// the credentials are of another kind. Sets the pCloud time-out on the processor.
DispatcherUrl GetBaseUrlFromCookie(URLProcessor* urlProcessor);

// The Yandex Disk WebDAV host (Endpoints::kYandexWebDAV): its account comes with a token, not with
// a server address.
DispatcherUrl GetYandexWebDavUrl();

// `path` of an adapter below its mounted folder (`mountedRoot`, "/backups" or ""), with a leading
// "/" and none at the end; "/" names the server's root itself.
std::string PathBelowMount(const std::string& mountedRoot, const std::string& path);

// Reads at most `limit` bytes of an answer's body: enough to log what a server said of a refusal.
std::string ReadAnswerPrefix(InputStream* input, std::uint32_t limit = 4096);
