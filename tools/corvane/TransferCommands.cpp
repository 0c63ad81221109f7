// get and put: one file through the adapter's file slot, in the order the core drives it.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <vector>

#include "AccountTree.h"
#include "Command.h"
#include "Interrupter.h"
#include "ProgressBar.h"
#include "ServiceSession.h"
#include "core/HashCalculators.h"
#include "core/RemoteFileSystem.h"
#include "core/SpecialDocsTypeRemoteReader.h"

namespace corvane {
namespace {

constexpr std::uint32_t kBlockSize = 1024 * 1024;
// Dropbox's block: no hash we compute gains from a block that splits it.
constexpr std::uint32_t kHashBlockSize = 4 * 1024 * 1024;

double Fraction(const std::atomic<std::uint64_t>& done, std::uint64_t whole) {
  return whole ? static_cast<double>(done.load()) / static_cast<double>(whole) : 1.0;
}

// After a failed transfer the slot is abandoned, not finished: a half written file must not be
// completed, and an interrupted upload keeps its session for the next try.
int AbandonTransfer(Context& context, FileSystem::Result result, const std::string& what,
                    std::string detail = std::string()) {
  if (result == FileSystem::STOPPED) {
    context.fs->Start();
  }
  context.fs->InterruptFile();
  if (context.interrupter.Interrupted()) {
    detail = "interrupted";
  }
  return Report(context, result, what, detail);
}

struct LocalFile {
  std::uint64_t size = 0;
  std::uint64_t mtime = 0;
  // What any write to the file or a replacement of it changes: device and inode, and the times
  // of the last change of content and of status, to the nanosecond.
  std::array<std::int64_t, 6> identity{};
};

bool StatLocal(const std::string& path, LocalFile* file) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return false;
  }
  file->size = static_cast<std::uint64_t>(info.st_size);
  file->mtime = static_cast<std::uint64_t>(info.st_mtime);
  file->identity = {static_cast<std::int64_t>(info.st_dev),
                    static_cast<std::int64_t>(info.st_ino),
                    info.st_mtim.tv_sec,
                    info.st_mtim.tv_nsec,
                    info.st_ctim.tv_sec,
                    info.st_ctim.tv_nsec};
  return true;
}

// Whether the file at `path` is still the one measured in `file`, untouched.
bool StillSame(const std::string& path, const LocalFile& file) {
  LocalFile now;
  return StatLocal(path, &now) && now.size == file.size && now.identity == file.identity;
}

// Reads up to `size` bytes; a short count only at the end of the stream or on a failure.
std::uint32_t ReadBlock(std::istream& in, char* data, std::uint32_t size) {
  in.read(data, static_cast<std::streamsize>(size));
  return static_cast<std::uint32_t>(in.gcount());
}

// Dropbox's 4 MiB blocks are hashed each on its own, two at a time on other threads while this
// one reads the next: past the speed of one SHA-256 stream where two cores are free. Digests
// join the stream in block order.
bool HashDropboxBlocks(std::istream& in, HashCalculatorDropbox* calculator,
                       const Interrupter* interrupter) {
  constexpr std::size_t kInFlight = 2;
  static_assert(kHashBlockSize == HashCalculatorDropbox::kBlockSize);
  std::array<std::vector<char>, kInFlight + 1> buffers;
  std::deque<std::future<HashBase<32>>> pending;
  calculator->Begin();
  for (std::size_t n = 0;; ++n) {
    // 1. The block; its buffer was freed when the digest of the block three back was taken.
    std::vector<char>& buffer = buffers[n % buffers.size()];
    buffer.resize(kHashBlockSize);
    const std::uint32_t got = ReadBlock(in, buffer.data(), kHashBlockSize);
    const bool last = got < kHashBlockSize;
    if (!last) {
      const auto* data = reinterpret_cast<const std::uint8_t*>(buffer.data());
      pending.push_back(std::async(std::launch::async | std::launch::deferred,
                                   HashCalculatorDropbox::BlockDigest, data, got));
    }
    // 2. Digests in order, keeping two blocks in flight until the end.
    while (pending.size() > kInFlight || (last && !pending.empty())) {
      calculator->FeedBlockDigest(pending.front().get());
      pending.pop_front();
    }
    if (last) {
      calculator->Feed(reinterpret_cast<const std::uint8_t*>(buffer.data()), got);
      return in.eof();
    }
    if (interrupter && interrupter->Interrupted()) {
      return false;
    }
  }
}

// Runs the rest of `in` through `calculator`; false when it can't be read or a signal came. The
// next block is read on another thread while this one is hashed: on a file in the page cache
// reading costs half as much as hashing, and the two need not wait for each other.
bool HashStream(std::istream& in, HashCalculator* calculator, const Interrupter* interrupter) {
  if (auto* dropbox = dynamic_cast<HashCalculatorDropbox*>(calculator)) {
    return HashDropboxBlocks(in, dropbox, interrupter);
  }
  auto read = [&in](std::vector<char>* block) {
    return ReadBlock(in, block->data(), static_cast<std::uint32_t>(block->size()));
  };
  std::vector<char> current(kHashBlockSize);
  std::vector<char> next(kHashBlockSize);
  calculator->Begin();
  for (std::uint32_t got = read(&current); got != 0;) {
    // 1. The stream is touched by one thread at a time: the reader owns it until get().
    std::future<std::uint32_t> ahead;
    if (in) {
      ahead = std::async(std::launch::async, read, &next);
    }
    calculator->Feed(reinterpret_cast<const std::uint8_t*>(current.data()), got);
    got = ahead.valid() ? ahead.get() : 0;
    std::swap(current, next);
    if (interrupter && interrupter->Interrupted()) {
      return false;
    }
  }
  return in.eof();
}

FileSystem::Result OpenUpload(Context& context, const std::string& remote, const SomeHash& hash,
                              const LocalFile& local, std::uint64_t* resume_offset) {
  RemoteFileSystem& fs = *context.fs;
  FileSystem::Result prepared = context.tree->Prepare();
  if (prepared != FileSystem::SUCCEEDED) {
    return prepared;
  }
  if (context.options.overwrite) {
    // The control is the hash the file has now: whoever changed it since loses nothing.
    Item existing;
    FileSystem::Result found = FindItem(context, remote, &existing);
    if (found == FileSystem::SUCCEEDED && !existing.folder) {
      return fs.OpenForRewrite(FileSystem::OverwriteControl(existing.hash), remote, hash,
                               local.size, local.mtime, resume_offset);
    }
    if (found != FileSystem::ITEM_MISSED) {
      return found;
    }
  }
  return fs.OpenForCreate(FileSystem::OverwriteControl(), remote, hash, local.size, local.mtime,
                          resume_offset, false);
}

// Lower-case hex, as other tools print it; Yandex's two digests with one blank between.
std::string HashText(const SomeHash& hash) {
  return hash.GetType() == SomeHash::YANDEX ? hash.ToDisplayString() : hash.ToHexString();
}

// The file a get writes: a temporary file beside the target, renamed over it only once the whole
// read went well, so that a failed read leaves the target as it was. "-" is stdout.
class LocalTarget {
 public:
  explicit LocalTarget(std::string target) : target_(std::move(target)) {}
  ~LocalTarget() {
    if (!temp_.empty()) {
      file_.close();
      ::unlink(temp_.c_str());
    }
  }
  LocalTarget(const LocalTarget&) = delete;
  LocalTarget& operator=(const LocalTarget&) = delete;

  bool Open() {
    if (target_ == "-") {
      return true;
    }
    std::string pattern = target_ + ".corvane-XXXXXX";
    int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
      return false;
    }
    temp_ = pattern;
    ::fchmod(fd, ModeForTarget());
    ::close(fd);
    file_.open(temp_, std::ios::binary | std::ios::trunc);
    return file_.is_open();
  }

  std::ostream& out() { return temp_.empty() ? std::cout : file_; }

  // Everything is on disk under the target's name, or the target is untouched.
  bool Commit() {
    if (temp_.empty()) {
      return static_cast<bool>(std::cout.flush());
    }
    file_.close();
    if (file_.fail() || ::rename(temp_.c_str(), target_.c_str()) != 0) {
      return false;
    }
    temp_.clear();
    return true;
  }

 private:
  // A file that is replaced keeps its permissions; a new one gets what the umask allows.
  mode_t ModeForTarget() const {
    struct stat info {};
    if (::stat(target_.c_str(), &info) == 0) {
      return info.st_mode & 07777;
    }
    mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
  }

  std::string target_;
  std::string temp_;
  std::ofstream file_;
};

}  // namespace

int RunHash(Context& context) {
  static const std::pair<const char*, SomeHash::HashType> kTypes[] = {
      {"dropbox", SomeHash::DROPBOX}, {"quickxor", SomeHash::ONEDRIVE},
      {"google", SomeHash::GOOGLE},   {"box", SomeHash::BOX},
      {"yandex", SomeHash::YANDEX},   {"internal", SomeHash::GENERIC},
  };
  std::unique_ptr<HashCalculator> calculator;
  for (const auto& [name, type] : kTypes) {
    if (context.options.hash_type == name) {
      calculator = MakeHashCalculator(type);
    }
  }
  if (!calculator) {
    return Fail(context, kExitUsage,
                "hash: --type is one of dropbox, quickxor, google, box, yandex, internal");
  }
  const std::string& path = context.options.args[0];
  std::ifstream in(path, std::ios::binary);
  if (!in || !HashStream(in, calculator.get(), nullptr)) {
    return Fail(context, kExitEnvironment, "hash: cannot read " + path);
  }
  context.out << HashText(calculator->Finish()) << std::endl;
  return 0;
}

int RunGet(Context& context) {
  RemoteFileSystem& fs = *context.fs;
  std::string remote = context.options.args[0];
  const std::string& local = context.options.args[1];
  if (!ToCanonicalPath(&remote) || remote.empty()) {
    return Fail(context, kExitUsage, "get: not a file path: " + context.options.args[0]);
  }
  // 1. Size and hash as the core has them from its tree.
  Item item;
  FileSystem::Result result = FindItem(context, remote, &item);
  if (result == FileSystem::SUCCEEDED && item.folder) {
    return Fail(context, kExitUsage, "get: " + remote + " is a folder");
  }
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "get: " + remote);
  }
  LocalTarget target(local);
  if (!target.Open()) {
    return Fail(context, kExitEnvironment, "get: cannot write beside " + local);
  }
  std::ostream& out = target.out();
  // 2. The ranged read.
  std::uint64_t offset = context.options.offset.value_or(0);
  std::uint64_t limit = context.options.limit.value_or(item.size);
  result = fs.OpenForRead(remote, offset, limit, item.size, item.hash);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "get: OpenForRead");
  }
  // The core knows the size from its tree and reads exactly the bytes it asked for: an adapter
  // need not answer a read past the end.
  std::uint64_t end = std::min(limit, item.size);
  std::uint64_t wanted = end > offset ? end - offset : 0;
  std::atomic<std::uint64_t> received{0};
  {
    ProgressBar bar("get", [&received, wanted] { return Fraction(received, wanted); });
    std::vector<std::uint8_t> block(kBlockSize);
    while (received < wanted) {
      auto ask = static_cast<std::uint32_t>(std::min<std::uint64_t>(kBlockSize, wanted - received));
      std::uint32_t done = 0;
      result = fs.ReadFile(block.data(), ask, &done);
      if (result == FileSystem::SUCCEEDED && done == 0) {
        return AbandonTransfer(context, FileSystem::FAILED, "get: ReadFile",
                               "the file ended after " + std::to_string(received.load()) + " of " +
                                   std::to_string(wanted) + " bytes");
      }
      if (result != FileSystem::SUCCEEDED) {
        return AbandonTransfer(context, result, "get: ReadFile");
      }
      out.write(reinterpret_cast<const char*>(block.data()), done);
      received += done;
    }
  }
  // 3. The slot closes; a read leaves nothing to report back.
  result = fs.CloseFile(nullptr);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "get: CloseFile");
  }
  if (!target.Commit()) {
    return Fail(context, kExitEnvironment, "get: writing " + local + " failed");
  }
  context.err << "get: " << received.load() << " bytes of " << remote << std::endl;
  return 0;
}

namespace {

// What one try of a put ended with: the Result and the step that gave it.
struct PutTry {
  FileSystem::Result result = FileSystem::SUCCEEDED;
  const char* step = "put";
  std::string detail;
};

// Open, the content from where the service stands, close. A failed try leaves the slot
// abandoned, so that an interrupted upload keeps its session for the next one.
PutTry TryPut(Context& context, const std::string& local, const std::string& remote,
              const LocalFile& file, const SomeHash& hash, FileSystem::FileProperties* props) {
  RemoteFileSystem& fs = *context.fs;
  // 1. Open, where a service that resumes tells how much it holds already.
  if (fs.SupportsResumingUpload()) {
    fs.SetFileHashToResumeInterruptedUpload(hash);
  }
  std::uint64_t resume_offset = 0;
  PutTry outcome;
  outcome.result = OpenUpload(context, remote, hash, file, &resume_offset);
  if (outcome.result != FileSystem::SUCCEEDED) {
    outcome.step = context.options.overwrite ? "put: OpenForRewrite" : "put: OpenForCreate";
    return outcome;
  }
  if (resume_offset > 0) {
    context.err << "put: resuming at byte " << resume_offset << std::endl;
  }
  // 2. The content from the resume offset on.
  std::ifstream in(local, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(resume_offset));
  std::atomic<std::uint64_t> sent{resume_offset};
  {
    ProgressBar bar("put", [&sent, &file] { return Fraction(sent, file.size); });
    std::vector<char> block(kBlockSize);
    while (sent < file.size) {
      in.read(block.data(), block.size());
      auto got = static_cast<std::uint32_t>(in.gcount());
      if (got == 0) {
        fs.InterruptFile();
        return PutTry{FileSystem::FAILED, "put", local + " shrank while being sent"};
      }
      // The last block goes only for a file nobody touched since it was measured: the server
      // would otherwise keep a mix of two versions.
      if (sent + got >= file.size && !StillSame(local, file)) {
        fs.InterruptFile();
        return PutTry{FileSystem::FAILED, "put", local + " changed while being sent"};
      }
      outcome.result = fs.WriteFile(reinterpret_cast<const std::uint8_t*>(block.data()), got);
      if (outcome.result != FileSystem::SUCCEEDED) {
        if (outcome.result == FileSystem::STOPPED) {
          fs.Start();
        }
        fs.InterruptFile();
        outcome.step = "put: WriteFile";
        return outcome;
      }
      sent += got;
    }
  }
  // 3. Finish: the server's hash of what it now holds.
  props->time = file.mtime;
  outcome.result = fs.CloseFile(props);
  outcome.step = "put: CloseFile";
  return outcome;
}

// Whether the service uses the content hash announced with an upload: to find the session to
// resume, or as the hash it keeps or compares with its own. A WebDAV server keeps its own etag and
// resumes nothing: there the hash would only be compared with the bytes sent, which the file's
// unchanged identity before the last block shows without a second pass over the file.
bool TakesContentHash(RemoteFileSystem& fs) {
  return fs.GetHashType() != SomeHash::GENERIC || fs.SupportsResumingUpload();
}

}  // namespace

int RunPut(Context& context) {
  RemoteFileSystem& fs = *context.fs;
  const std::string& local = context.options.args[0];
  std::string remote = context.options.args[1];
  if (!ToCanonicalPath(&remote) || remote.empty()) {
    return Fail(context, kExitUsage, "put: not a file path: " + context.options.args[1]);
  }
  // 1. The content hash by the service's own calculator, where the service takes one.
  LocalFile file;
  std::ifstream in(local, std::ios::binary);
  if (!StatLocal(local, &file) || !in) {
    return Fail(context, kExitEnvironment, "put: cannot read " + local);
  }
  SomeHash hash;
  std::unique_ptr<HashCalculator> calculator;
  if (TakesContentHash(fs)) {
    calculator = MakeHashCalculator(fs.GetHashType());
  }
  if (calculator) {
    if (!HashStream(in, calculator.get(), &context.interrupter)) {
      return context.interrupter.Interrupted()
                 ? Report(context, FileSystem::STOPPED, "put", "interrupted")
                 : Fail(context, kExitEnvironment, "put: cannot read " + local);
    }
    hash = calculator->Finish();
  }
  // 2. The tries: a failure that a later try may overcome is tried again, unless stopped.
  FileSystem::FileProperties props;
  PutTry outcome;
  for (std::uint64_t attempt = 0;; ++attempt) {
    outcome = TryPut(context, local, remote, file, hash, &props);
    if (outcome.result != FileSystem::FAILED || context.interrupter.Interrupted() ||
        attempt >= context.options.retries.value_or(0)) {
      break;
    }
    context.err << "put: try " << attempt + 1 << " failed, trying again" << std::endl;
  }
  if (outcome.result != FileSystem::SUCCEEDED) {
    if (context.interrupter.Interrupted()) {
      outcome.detail = "interrupted";
    }
    return Report(context, outcome.result, outcome.step, outcome.detail);
  }
  if (context.options.json) {
    context.out << "{\"path\": " << JsonString(remote) << ", \"size\": " << file.size
                << ", \"hash\": " << JsonString(props.hash.ToHexString()) << "}" << std::endl;
  } else {
    context.out << props.hash.ToDisplayString() << std::endl;
  }
  context.err << "put: " << file.size << " bytes to " << remote << std::endl;
  return 0;
}

int RunExport(Context& context) {
  std::string remote = context.options.args[0];
  const std::string& local = context.options.args[1];
  if (!ToCanonicalPath(&remote) || remote.empty()) {
    return Fail(context, kExitUsage, "export: not a file path: " + context.options.args[0]);
  }
  // 1. The tree names the document; the reader learns every document's export link.
  FileSystem::Result result = context.tree->Prepare();
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "export: tree");
  }
  std::shared_ptr<SpecialDocsTypeRemoteReader> reader = context.session->DocsReader();
  if (!reader) {
    return Fail(context, kExitUsage, "export: the service keeps no documents of its own");
  }
  if (!reader->LoadLinks()) {
    return Report(context, FileSystem::FAILED, "export: LoadLinks");
  }
  // 2. The converted copy.
  LocalTarget target(local);
  if (!target.Open()) {
    return Fail(context, kExitEnvironment, "export: cannot write beside " + local);
  }
  result = reader->Open(remote);
  std::uint64_t size = 0;
  if (result == FileSystem::SUCCEEDED) {
    result = reader->ReadSizeHeader(&size);
  }
  std::vector<std::uint8_t> block(kBlockSize);
  std::uint64_t received = 0;
  for (std::uint32_t done = 1; result == FileSystem::SUCCEEDED && done > 0;) {
    result = reader->Read(block.data(), kBlockSize, &done);
    target.out().write(reinterpret_cast<const char*>(block.data()), done);
    received += done;
  }
  reader->Close();
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "export: " + remote);
  }
  if (!target.Commit()) {
    return Fail(context, kExitEnvironment, "export: writing " + local + " failed");
  }
  context.err << "export: " << received << " bytes of " << remote << " as "
              << reader->GetExtension(remote) << std::endl;
  return 0;
}

}  // namespace corvane
