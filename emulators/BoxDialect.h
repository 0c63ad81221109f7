// BoxDialect: Box API 2.0 over the shared account model, as Box documents it.
//
//   auto emulator = emulators::Emulator::Start("box", 0, &error);
//   Endpoints::Override("box.api", ...);  // from emulator->Endpoints()
//
// The API host ("box.api") serves users/me, folders and their items (marker or offset paging,
// at most 1000 entries a page), files by id, content through a 302 to a pre-authorized download
// URL, and the global properties metadata of folders. The upload host ("box.upload") serves
// multipart uploads (attributes before file) and chunked upload sessions: parts of exactly the
// session's part size, each with its "digest: sha=" and "content-range"; a commit checks the
// parts and the whole file's digest and answers its first try with 202 and "Retry-After".
// Failures carry Box's error object: {"type":"error","status":N,"code":"...","message":...}.
#pragma once

#include <memory>

#include "emulators/Dialect.h"

namespace emulators {

std::unique_ptr<Dialect> MakeBoxDialect();

}  // namespace emulators
