#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tools/backend/HttpStream.h"

namespace {

using Lum::Tools::HttpStream;

// A chunked request whose size line is `sizeLine`, after one 5-byte chunk.
// The client keeps sending (up to 8 MiB) after it: a size that is refused
// must be refused before any of that is read.
struct Outcome {
  HttpStream::ReadResult result;
  std::string body;
  size_t readPastRequest;
};

Outcome ReadChunked(const std::string& sizeLine) {
  const std::string request =
      "POST /up HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n" + sizeLine + "\r\n";
  size_t served = 0;
  const size_t cap = request.size() + 8 * 1024 * 1024;
  HttpStream stream(
      [&](char* out, int room) {
        const size_t n = std::min(static_cast<size_t>(room), cap - served);
        for (size_t i = 0; i < n; ++i, ++served) {
          out[i] = served < request.size() ? request[served] : 'a';
        }
        return static_cast<int>(n);
      },
      [](const char*, int length) { return length; });
  Lum::Tools::RecordedRequest recorded;
  Outcome outcome{stream.readRequest(&recorded), recorded.body, 0};
  // Reads come in pieces of up to 16 KiB, so one read may run past the end.
  outcome.readPastRequest = served > request.size() + 16 * 1024 ? served - request.size() : 0;
  return outcome;
}

TEST(HttpStreamTest, ChunkSizesThatWrapOrCarryASignAreRefusedBeforeReadingOn) {
  for (const char* line :
       {"-1", "FFFFFFFFFFFFFFFC", "10000000000000005", "+5", " 5", "5x", "20000000"}) {
    SCOPED_TRACE(line);
    const Outcome outcome = ReadChunked(line);
    EXPECT_EQ(HttpStream::ReadResult::Malformed, outcome.result);
    EXPECT_EQ(0u, outcome.readPastRequest);
  }
}

TEST(HttpStreamTest, ChunkExtensionsAreAccepted) {
  const Outcome outcome = ReadChunked("0;name=value\r\n");
  EXPECT_EQ(HttpStream::ReadResult::Request, outcome.result);
  EXPECT_EQ("hello", outcome.body);
}

}  // namespace
