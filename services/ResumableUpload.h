// resumable_upload::ResumableSessions<T>: the interrupted uploads of an account, kept in memory
// by remote path so that the next upload of the same content goes on where the last one stopped.
//
//   sessions.Store(path, upload);                       // the upload stopped short
//   if (sessions.TakeForResume(path, hash, size, &upload)) { /* go on from its offset */ }
//
// T is an adapter's session record: copyable by assignment and default constructible.
// SessionFields<T> tells where the record keeps the content hash (the service's own hash type),
// the total size and the offset the server has accepted; the default reads members `hash`,
// `size` and `offset`, and an adapter whose record names them otherwise specializes it.
//
// At most kMaxSessions are kept: a new one evicts the session that got least far, and sends the
// metric "too_many_sessions". Safe from any thread.
#pragma once

#include <QMutex>
#include <QMutexLocker>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "services/Fnv1aHash.h"

namespace resumable_upload {

template <typename T>
struct SessionFields {
  static auto& Hash(T& session) { return session.hash; }
  static const auto& Hash(const T& session) { return session.hash; }
  static std::uint64_t Size(const T& session) { return session.size; }
  static std::uint64_t Offset(const T& session) { return session.offset; }
};

namespace detail {

// A generic hash is the server's text: unknown while empty.
inline bool IsZeroHash(const std::string& hash) {
  return hash.empty();
}
template <typename Hash>
bool IsZeroHash(const Hash& hash) {
  return hash.IsZero();
}

// The log lines and the metric of the store, one definition for every service's T.
void LogStored(const std::string& path, std::uint64_t offset);
void ReportEviction(const std::string& path, std::uint64_t offset);
void LogEmptyHash(const std::string& path);
void LogHashSet(const std::string& path, const std::string& hash);
void LogHashChanged(const std::string& path, const std::string& expected, const std::string& got);
void LogSizeChanged(const std::string& path, std::uint64_t expected, std::uint64_t got);
void LogResuming(const std::string& path, const std::string& hash, std::uint64_t offset);

}  // namespace detail

template <typename T>
class ResumableSessions {
 public:
  static constexpr std::size_t kMaxSessions = 100;

  ResumableSessions() : sessions_(kInitialBuckets) { sessions_.max_load_factor(1.0f); }

  // Keeps a copy of the session, replacing the one of the same path.
  void Store(const std::string& path, const T& session) {
    {
      QMutexLocker locker(&mutex_);
      // The count is tested before the insert: even a path already present evicts when full.
      if (sessions_.size() >= kMaxSessions) {
        EvictLeastAdvanced();
      }
      sessions_.insert_or_assign(path, session);
    }
    detail::LogStored(path, Fields::Offset(session));
  }

  // Gives the session the hash of its content once it became known, and stores it. `hash_getter`
  // takes the service's own hash out of `hash` (e.g. &SomeHash::GetHashDropbox).
  template <typename SomeHashT, typename HashGetter>
  void StoreWithHash(const std::string& path, const SomeHashT& hash, T& session,
                     HashGetter hash_getter) {
    if (hash.IsEmpty()) {
      detail::LogEmptyHash(path);
      return;
    }
    if (!detail::IsZeroHash(Fields::Hash(session)) || Fields::Size(session) == 0 ||
        Fields::Offset(session) > Fields::Size(session)) {
      return;
    }
    Fields::Hash(session) = std::invoke(hash_getter, hash);
    Store(path, session);
    detail::LogHashSet(path, hash.ToDisplayString());
  }

  // Takes out the session of `path` for an upload of this content and size about to begin. On
  // false `*session` is cleared; a session whose hash or size differ is dropped.
  template <typename SomeHashT>
  bool TakeForResume(const std::string& path, const SomeHashT& hash, std::uint64_t size,
                     T* session) {
    *session = T();
    if (hash.IsEmpty()) {
      return false;
    }
    {
      QMutexLocker locker(&mutex_);
      auto it = sessions_.find(path);
      if (it == sessions_.end()) {
        return false;
      }
      *session = std::move(it->second);
      sessions_.erase(it);
    }
    const SomeHashT stored(Fields::Hash(*session));
    if (stored != hash) {
      detail::LogHashChanged(path, stored.ToHexString(), hash.ToHexString());
      *session = T();
      return false;
    }
    if (Fields::Size(*session) != size) {
      detail::LogSizeChanged(path, Fields::Size(*session), size);
      *session = T();
      return false;
    }
    detail::LogResuming(path, hash.ToDisplayString(), Fields::Offset(*session));
    return true;
  }

  std::size_t Count() const {
    QMutexLocker locker(&mutex_);
    return sessions_.size();
  }

 private:
  using Fields = SessionFields<T>;
  static constexpr std::size_t kInitialBuckets = 8;

  // The session that made the least progress is the one given up, the first of equals in the
  // map's order.
  void EvictLeastAdvanced() {
    auto least =
        std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
          return Fields::Offset(a.second) < Fields::Offset(b.second);
        });
    detail::ReportEviction(least->first, Fields::Offset(least->second));
    sessions_.erase(least);
  }

  std::unordered_map<std::string, T, Fnv1aHash> sessions_;
  mutable QMutex mutex_;
};

}  // namespace resumable_upload
