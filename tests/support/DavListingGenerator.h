// A PROPFIND answer for one folder of `count` files, made while it is read: the document never
// exists in memory as a whole. Header-only, so that the benchmarks use it too.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/InputStream.h"

class DavListingGenerator : public InputStream {
 public:
  // Every entry of the listing has this size and this modification time.
  static constexpr std::uint64_t kFileSize = 4096;
  static constexpr std::uint64_t kModified = 1699956000;  // Tue, 14 Nov 2023 10:00:00 GMT

  explicit DavListingGenerator(std::uint64_t count) : count_(count) {
    pending_ =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">\n"
        "<D:response><D:href>/dav/big/</D:href><D:propstat><D:prop><D:resourcetype>"
        "<D:collection/></D:resourcetype></D:prop><D:status>HTTP/1.1 200 OK</D:status>"
        "</D:propstat></D:response>\n";
  }

  Result Read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override {
    *done = 0;
    while (*done < size) {
      if (offset_ == pending_.size() && !NextChunk()) {
        break;
      }
      const std::size_t n = std::min<std::size_t>(size - *done, pending_.size() - offset_);
      std::memcpy(buffer + *done, pending_.data() + offset_, n);
      offset_ += n;
      *done += static_cast<std::uint32_t>(n);
    }
    produced_ += *done;
    return *done > 0 ? Result::OK : Result::END;
  }

  std::uint64_t Produced() const { return produced_; }

 private:
  bool NextChunk() {
    pending_.clear();
    offset_ = 0;
    if (next_ < count_) {
      const std::string id = std::to_string(next_++);
      pending_ = "<D:response><D:href>/dav/big/file%20" + id +
                 ".bin</D:href><D:propstat><D:prop><D:resourcetype/><D:getcontentlength>" +
                 std::to_string(kFileSize) + "</D:getcontentlength><D:getetag>\"e" + id +
                 "\"</D:getetag><D:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT"
                 "</D:getlastmodified></D:prop><D:status>HTTP/1.1 200 OK</D:status>"
                 "</D:propstat></D:response>\n";
    } else if (!footerDone_) {
      footerDone_ = true;
      pending_ = "</D:multistatus>\n";
    }
    return !pending_.empty();
  }

  std::uint64_t count_;
  std::uint64_t next_ = 0;
  bool footerDone_ = false;
  std::string pending_;
  std::size_t offset_ = 0;
  std::uint64_t produced_ = 0;
};
