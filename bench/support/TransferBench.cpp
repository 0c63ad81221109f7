#include "support/TransferBench.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "core/HashCalculators.h"
#include "core/Nodes.h"
#include "emulators/HttpServer.h"
#include "support/Measure.h"

namespace bench {

namespace {

constexpr std::size_t kWriteBuffer = 1 << 20;

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Timing Failed(const std::string& error) {
  Timing timing;
  timing.error = error;
  return timing;
}

Timing Failed(const std::string& step, FileSystem::Result result) {
  return Failed(step + ": " + FileSystem::ResultName(result));
}

SomeHash HashOf(RemoteFileSystem& fs, const ContentSource& content, std::uint64_t size) {
  std::unique_ptr<HashCalculator> calculator = MakeHashCalculator(fs.GetHashType());
  if (!calculator)
    return SomeHash();
  calculator->Begin();
  std::vector<std::uint8_t> buffer(kWriteBuffer);
  for (std::uint64_t at = 0; at < size; at += buffer.size()) {
    const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(buffer.size(), size - at));
    content(at, buffer.data(), n);
    calculator->Feed(buffer.data(), n);
  }
  return calculator->Finish();
}

// Adapters that address items by id find them in the id tree the whole tree fills.
FileSystem::Result LoadTree(RemoteFileSystem& fs, FolderNode* root) {
  std::uint64_t free = 0, total = 0;
  tsl::htrie_set<char> service_items;
  return fs.GetFullTree(root, &free, &total, &service_items);
}

}  // namespace

std::uint64_t ScaledBytes(std::uint64_t bytes) {
  return std::max<std::uint64_t>(1, static_cast<std::uint64_t>(bytes * Scale()));
}

ContentSource GeneratedContent() {
  return [](std::uint64_t offset, std::uint8_t* out, std::size_t size) {
    emulators::PatternBytes(offset, out, size);
    return true;
  };
}

Payload::Payload(std::uint64_t size, std::uint64_t piece_size)
    : size_(size), piece_size_(piece_size) {
  std::vector<std::uint8_t> buffer(kWriteBuffer);
  for (std::uint64_t start = 0; start < size; start += piece_size) {
    pieces_.push_back((dir_.path() / ("piece" + std::to_string(pieces_.size()))).string());
    std::ofstream out(pieces_.back(), std::ios::binary);
    const std::uint64_t end = std::min(size, start + piece_size);
    for (std::uint64_t at = start; at < end; at += buffer.size()) {
      const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), end - at));
      emulators::PatternBytes(at, buffer.data(), n);
      out.write(reinterpret_cast<const char*>(buffer.data()), static_cast<std::streamsize>(n));
    }
  }
}

ContentSource Payload::Source() const {
  // Reads come in order: one piece open at a time.
  auto in = std::make_shared<std::ifstream>();
  auto open_piece = std::make_shared<std::size_t>(SIZE_MAX);
  return [this, in, open_piece](std::uint64_t offset, std::uint8_t* out, std::size_t size) {
    while (size > 0) {
      if (offset >= size_)
        return false;
      const std::size_t piece = static_cast<std::size_t>(offset / piece_size_);
      if (piece != *open_piece) {
        in->close();
        in->open(pieces_[piece], std::ios::binary);
        *open_piece = piece;
      }
      in->seekg(static_cast<std::streamoff>(offset - piece * piece_size_));
      const std::uint64_t piece_end = std::min(size_, (piece + 1) * piece_size_);
      const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(size, piece_end - offset));
      if (!in->read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(n)))
        return false;
      offset += n;
      out += n;
      size -= n;
    }
    return true;
  };
}

Timing UploadThrough(RemoteFileSystem& fs, const std::string& path, const ContentSource& content,
                     std::uint64_t size, std::uint32_t block) {
  // 1. The tree and the hash, as the core has them before it uploads.
  FolderNode root;
  FileSystem::Result result = LoadTree(fs, &root);
  if (result != FileSystem::SUCCEEDED)
    return Failed("GetFullTree", result);
  const SomeHash hash = HashOf(fs, content, size);
  if (fs.SupportsResumingUpload())
    fs.SetFileHashToResumeInterruptedUpload(hash);
  // 2. The upload, block by block.
  const auto start = std::chrono::steady_clock::now();
  std::uint64_t resume = 0;
  result = fs.OpenForCreate(FileSystem::OverwriteControl(), path, hash, size, 1700000000, &resume,
                            false);
  if (result != FileSystem::SUCCEEDED)
    return Failed("OpenForCreate", result);
  std::vector<std::uint8_t> buffer(block);
  for (std::uint64_t at = resume; at < size; at += block) {
    const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(block, size - at));
    if (!content(at, buffer.data(), n))
      return Failed("the payload could not be read");
    result = fs.WriteFile(buffer.data(), n);
    if (result != FileSystem::SUCCEEDED)
      return Failed("WriteFile", result);
  }
  FileSystem::FileProperties props;
  result = fs.CloseFile(&props);
  if (result != FileSystem::SUCCEEDED)
    return Failed("CloseFile", result);
  // 3. The server's hash of what it holds, where the adapter reports one.
  if (!props.hash.IsEmpty() && props.hash.GetType() == hash.GetType() && props.hash != hash)
    return Failed("the server holds " + props.hash.ToHexString() + ", not " + hash.ToHexString());
  Timing timing;
  timing.ok = true;
  timing.seconds = SecondsSince(start);
  return timing;
}

Timing DownloadThrough(RemoteFileSystem& fs, const std::string& path, std::uint64_t size,
                       std::uint32_t block) {
  // 1. The file's node, as the core has it from its tree.
  FolderNode root;
  FileSystem::Result result = LoadTree(fs, &root);
  if (result != FileSystem::SUCCEEDED)
    return Failed("GetFullTree", result);
  auto [folder, name] = root.TraversePath(path, true);
  const FileNode* file = folder ? folder->GetFile(name) : nullptr;
  if (!file || file->size != size)
    return Failed(path + " is not in the tree with its size");
  // 2. The whole read.
  const auto start = std::chrono::steady_clock::now();
  result = fs.OpenForRead(path, 0, size, file->size, file->hash);
  if (result != FileSystem::SUCCEEDED)
    return Failed("OpenForRead", result);
  std::vector<std::uint8_t> buffer(block);
  for (std::uint64_t received = 0; received < size;) {
    const auto ask = static_cast<std::uint32_t>(std::min<std::uint64_t>(block, size - received));
    std::uint32_t done = 0;
    result = fs.ReadFile(buffer.data(), ask, &done);
    if (result != FileSystem::SUCCEEDED)
      return Failed("ReadFile", result);
    if (done == 0)
      return Failed("the file ended after " + std::to_string(received) + " bytes");
    received += done;
  }
  result = fs.CloseFile(nullptr);
  if (result != FileSystem::SUCCEEDED)
    return Failed("CloseFile", result);
  Timing timing;
  timing.ok = true;
  timing.seconds = SecondsSince(start);
  return timing;
}

Timing RunCurl(const std::vector<CurlRequest>& requests) {
  // 1. The process, its output in files of a folder of its own.
  std::vector<std::string> argv = {"curl", "-sS"};
  for (const CurlRequest& request : requests) {
    if (argv.size() > 2)
      argv.push_back("--next");
    argv.push_back("-f");
    argv.insert(argv.end(), request.begin(), request.end());
  }
  test::TempDir dir;
  const auto start = std::chrono::steady_clock::now();
  test::Outcome outcome = test::RunProcess(argv, dir.path());
  // 2. Its time, or why it has none.
  Timing timing;
  timing.seconds = SecondsSince(start);
  timing.ok = outcome.status == 0;
  timing.out = outcome.out;
  if (!timing.ok)
    timing.error = "curl exited with " + std::to_string(outcome.status) + ": " + outcome.err;
  return timing;
}

Timing RunCurlSteps(const std::vector<std::function<Timing(const Timing& previous)>>& steps) {
  Timing total;
  total.ok = true;
  for (const auto& step : steps) {
    Timing timing = step(total);
    if (!timing.ok)
      return timing;
    total.seconds += timing.seconds;
    total.out = timing.out;
  }
  return total;
}

CurlRequest CountDownloaded(CurlRequest request) {
  request.insert(request.begin(), {"-o", "/dev/null", "-w", "%{size_download}"});
  return request;
}

Timing CheckDownloaded(Timing download, std::uint64_t size) {
  if (download.ok && download.out != std::to_string(size))
    return Failed("curl read " + download.out + " bytes of " + std::to_string(size));
  return download;
}

std::string JsonText(const std::string& json, const char* key) {
  const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json));
  return document.object().value(key).toString().toStdString();
}

Timing CheckStored(Timing upload, const emulators::CloudAccount& account, const std::string& path,
                   const emulators::Item& expected) {
  if (!upload.ok)
    return upload;
  std::optional<emulators::Item> item = account.FindByPath(path);
  if (!item)
    return Failed(path + " is not in the account");
  if (item->size != expected.size || item->digests.sha256 != expected.digests.sha256) {
    return Failed(path + " holds " + std::to_string(item->size) + " bytes of SHA-256 " +
                  item->digests.sha256 + ", not " + std::to_string(expected.size) + " of " +
                  expected.digests.sha256);
  }
  return upload;
}

void MeasureTransfer(benchmark::State& state, std::uint64_t bytes,
                     const std::function<Timing()>& ours, const std::function<Timing()>& curl) {
  for (auto _ : state) {
    const Timing our_side = ours();
    const Timing curl_side = curl();
    for (const Timing* side : {&our_side, &curl_side}) {
      if (!side->ok) {
        state.SkipWithError(
            (std::string(side == &our_side ? "ours: " : "curl: ") + side->error).c_str());
        return;
      }
    }
    state.counters["MiB"] = bytes / 1048576.0;
    state.counters["ours_MBps"] = bytes / 1e6 / our_side.seconds;
    state.counters["curl_MBps"] = bytes / 1e6 / curl_side.seconds;
    state.counters["ratio"] = curl_side.seconds / our_side.seconds;
  }
}

}  // namespace bench
