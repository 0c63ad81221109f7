// The tokens DavXmlStream reads from a stream, one line each ("<local", ">local", "=text"), with
// consecutive text joined: what a reader sees whatever the reads split. Header-only, so that the
// fuzz targets use it too.
#pragma once

#include <string>
#include <vector>

#include "core/InputStream.h"
#include "services/DavXmlStream.h"

namespace test {

struct XmlTokens {
  DavXmlStream::State state;
  std::vector<std::string> tokens;
};

inline XmlTokens ReadXmlTokens(InputStream& input) {
  DavXmlStream stream(&input);
  XmlTokens read;
  while (stream.ReadNext()) {
    switch (stream.Kind()) {
      case DavXmlStream::kStartElement:
        read.tokens.push_back("<" + std::string(stream.LocalName()));
        break;
      case DavXmlStream::kEndElement:
        read.tokens.push_back(">" + std::string(stream.LocalName()));
        break;
      case DavXmlStream::kText:
        if (read.tokens.empty() || read.tokens.back()[0] != '=') {
          read.tokens.push_back("=");
        }
        read.tokens.back().append(stream.Text());
        break;
      case DavXmlStream::kNone:
        break;
    }
  }
  read.state = stream.GetState();
  return read;
}

}  // namespace test
