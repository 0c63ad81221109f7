#include "core/SpecialDocsTypeRemoteReader.h"

SpecialDocsTypeRemoteReader::SpecialDocsTypeRemoteReader(
    std::shared_ptr<RemoteFileSystemSharedData> shared_data,
    std::shared_ptr<URLProcessorFactory> url_factory)
    : shared_data_(std::move(shared_data)), url_factory_(std::move(url_factory)) {}
