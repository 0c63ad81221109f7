// The one door of the library: the core turns a service id and a remote root path into the
// factory of an account.
//
//   RemoteFileSystemFactory* factory = H6BA54F7D00(CloudServiceId::WEBDAV, "/backup");
//   if (factory) { RemoteFileSystem* fs = factory->Create(); ... delete fs; delete factory; }
//
// Null, and one line of level 4 "Unhandled service id: " + the name, for an id this library has
// no factory for.
#pragma once

#include <string>

#include "core/CloudServiceId.h"
#include "core/RemoteFileSystemFactory.h"

#if defined(_WIN32)
#define CORVANE_EXPORT __declspec(dllexport)
#else
#define CORVANE_EXPORT __attribute__((visibility("default")))
#endif

// The caller owns the factory and deletes it through its virtual destructor.
extern "C" CORVANE_EXPORT RemoteFileSystemFactory* H6BA54F7D00(CloudServiceId service_id,
                                                               const std::string& remote_root_path);
