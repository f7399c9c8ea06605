// The local back end's request framing (HttpStream, with MultipartParser for
// forms) fed a client's byte stream directly, without TLS.
//
// Input: byte 0 sets how many bytes each read hands over (1 + (b % 64) * 257),
// so requests split across reads at every kind of place; the rest is the
// stream. Requests are read until one is refused or the stream ends.
// Properties: no body exceeds the limit, the bodies read never add up to more
// bytes than the stream held, no accepted head exceeds the header limit, and
// every part of a form lies within its body.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "tools/backend/HttpStream.h"

using Lum::Tools::HttpStream;
using LumFuzz::Fail;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const size_t piece = 1 + (data[0] % 64) * 257;
  const char* next = reinterpret_cast<const char*>(data) + 1;
  size_t left = size - 1;
  const size_t streamBytes = left;
  HttpStream stream(
      [&](char* out, int room) {
        const size_t n = std::min({left, piece, static_cast<size_t>(room)});
        std::memcpy(out, next, n);
        next += n;
        left -= n;
        return static_cast<int>(n);
      },
      [](const char*, int length) { return length; });

  size_t bodyBytes = 0;
  for (int i = 0; i < 64; ++i) {
    Lum::Tools::RecordedRequest request;
    if (stream.readRequest(&request) != HttpStream::ReadResult::Request) {
      break;
    }
    bodyBytes += request.body.size();
    if (request.body.size() > HttpStream::kMaxBodyBytes || bodyBytes > streamBytes) {
      Fail("a body larger than the stream or the limit was read");
    }
    size_t headBytes = request.method.size() + request.target.size() + request.version.size();
    for (const auto& header : request.headers) {
      headBytes += header.first.size() + header.second.size();
    }
    if (headBytes > HttpStream::kMaxHeaderBytes) {
      Fail("a head above the header limit was accepted");
    }
    size_t partBytes = 0;
    for (const auto& part : request.parts) {
      partBytes += part.content.size();
    }
    if (partBytes > request.body.size()) {
      Fail("form parts hold more than their body");
    }
    HttpStream::WantsKeepAlive(request);
  }
  return 0;
}
