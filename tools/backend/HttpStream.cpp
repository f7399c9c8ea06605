#include "tools/backend/HttpStream.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "tools/backend/MultipartParser.h"

namespace Lum {
namespace Tools {

namespace {

constexpr size_t kReadChunk = 16 * 1024;

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) {
    return std::string();
  }
  size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

bool ContainsNoCase(const std::string& text, const std::string& word) {
  return strcasestr(text.c_str(), word.c_str()) != nullptr;
}

bool ParseLength(const std::string& text, size_t* length) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
      text.size() > 12) {
    return false;
  }
  *length = static_cast<size_t>(std::strtoull(text.c_str(), nullptr, 10));
  return true;
}

}  // namespace

HttpStream::HttpStream(SSL* ssl)
    : reader_([ssl](char* data, int size) { return SSL_read(ssl, data, size); }),
      writer_([ssl](const char* data, int size) { return SSL_write(ssl, data, size); }) {}

HttpStream::HttpStream(Reader reader, Writer writer)
    : reader_(std::move(reader)), writer_(std::move(writer)) {}

bool HttpStream::fill() {
  char chunk[kReadChunk];
  int received = reader_(chunk, static_cast<int>(sizeof(chunk)));
  if (received <= 0) {
    return false;  // end of stream, idle time-out, or the server is stopping
  }
  buffer_.append(chunk, static_cast<size_t>(received));
  return true;
}

bool HttpStream::writeAll(const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    size_t piece = data.size() - sent;
    if (piece > (1u << 30)) {
      piece = 1u << 30;
    }
    int written = writer_(data.data() + sent, static_cast<int>(piece));
    if (written <= 0) {
      return false;
    }
    sent += static_cast<size_t>(written);
  }
  return true;
}

bool HttpStream::readHead(std::string* head, ReadResult* result) {
  size_t end;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (buffer_.size() > kMaxHeaderBytes) {
      *result = ReadResult::TooLarge;
      return false;
    }
    if (!fill()) {
      *result = buffer_.empty() ? ReadResult::Closed : ReadResult::Malformed;
      return false;
    }
  }
  *head = buffer_.substr(0, end + 2);  // keeps the last header line's CR LF
  buffer_.erase(0, end + 4);
  return true;
}

bool HttpStream::readExact(size_t length, std::string* out) {
  while (buffer_.size() < length) {
    if (!fill()) {
      return false;
    }
  }
  out->append(buffer_, 0, length);
  buffer_.erase(0, length);
  return true;
}

bool HttpStream::readLine(std::string* line) {
  size_t end;
  while ((end = buffer_.find("\r\n")) == std::string::npos) {
    if (buffer_.size() > kMaxHeaderBytes || !fill()) {
      return false;
    }
  }
  *line = buffer_.substr(0, end);
  buffer_.erase(0, end + 2);
  return true;
}

bool HttpStream::readChunkedBody(std::string* body) {
  while (true) {
    std::string sizeLine;
    if (!readLine(&sizeLine)) {
      return false;
    }
    // Hex digits, then at most extensions after ';'. strtoull alone would
    // take a sign ("-1" reads as the largest value) and the sum below could
    // wrap; either would let a client make the body grow without bound.
    if (sizeLine.empty() || !std::isxdigit(static_cast<unsigned char>(sizeLine[0]))) {
      return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long size = std::strtoull(sizeLine.c_str(), &end, 16);
    if (errno == ERANGE || (*end != '\0' && *end != ';' && *end != ' ' && *end != '\t') ||
        size > kMaxBodyBytes - body->size()) {
      return false;
    }
    if (size == 0) {
      break;
    }
    std::string lineEnd;
    if (!readExact(static_cast<size_t>(size), body) || !readExact(2, &lineEnd) ||
        lineEnd != "\r\n") {
      return false;
    }
  }
  std::string trailer;  // trailers are read and ignored up to the empty line
  do {
    if (!readLine(&trailer)) {
      return false;
    }
  } while (!trailer.empty());
  return true;
}

bool HttpStream::ParseHead(const std::string& head, RecordedRequest* request) {
  size_t lineEnd = head.find("\r\n");
  std::string requestLine = head.substr(0, lineEnd);
  size_t firstSpace = requestLine.find(' ');
  size_t lastSpace = requestLine.rfind(' ');
  if (firstSpace == std::string::npos || firstSpace == lastSpace || firstSpace == 0) {
    return false;
  }
  request->method = requestLine.substr(0, firstSpace);
  request->target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
  request->version = requestLine.substr(lastSpace + 1);
  if (request->target.empty() || request->version.compare(0, 5, "HTTP/") != 0) {
    return false;
  }
  request->path = request->target.substr(0, request->target.find('?'));
  size_t position = lineEnd + 2;
  while (position < head.size()) {
    size_t end = head.find("\r\n", position);
    std::string line = head.substr(position, end - position);
    position = end + 2;
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
      return false;
    }
    request->headers.emplace_back(line.substr(0, colon), Trim(line.substr(colon + 1)));
  }
  request->host = request->header("Host");
  return true;
}

HttpStream::ReadResult HttpStream::readRequest(RecordedRequest* request) {
  std::string head;
  ReadResult result = ReadResult::Request;
  if (!readHead(&head, &result)) {
    return result;
  }
  if (!ParseHead(head, request)) {
    return ReadResult::Malformed;
  }
  if (ContainsNoCase(request->header("Expect"), "100-continue") &&
      !writeAll("HTTP/1.1 100 Continue\r\n\r\n")) {
    return ReadResult::Closed;
  }
  if (ContainsNoCase(request->header("Transfer-Encoding"), "chunked")) {
    if (!readChunkedBody(&request->body)) {
      return ReadResult::Malformed;
    }
  } else if (request->hasHeader("Content-Length")) {
    size_t length = 0;
    if (!ParseLength(request->header("Content-Length"), &length)) {
      return ReadResult::Malformed;
    }
    if (length > kMaxBodyBytes) {
      return ReadResult::TooLarge;
    }
    if (!readExact(length, &request->body)) {
      return ReadResult::Malformed;
    }
  }
  std::string boundary = MultipartParser::Boundary(request->header("Content-Type"));
  if (!boundary.empty()) {
    // A broken form is still recorded with the parts that could be read.
    MultipartParser::Parse(boundary, request->body, &request->parts);
  }
  return ReadResult::Request;
}

bool HttpStream::WantsKeepAlive(const RecordedRequest& request) {
  std::string connection = request.header("Connection");
  if (request.version == "HTTP/1.0") {
    return ContainsNoCase(connection, "keep-alive");
  }
  return !ContainsNoCase(connection, "close");
}

std::string HttpStream::statusAndHeaders(const Reply& reply, bool keepAlive) const {
  std::string head =
      "HTTP/1.1 " + std::to_string(reply.status) + " " + ReasonPhrase(reply.status) + "\r\n";
  if (!reply.contentType.empty()) {
    head += "Content-Type: " + reply.contentType + "\r\n";
  }
  // A stalled answer still announces a body, so the client waits for it.
  size_t length = reply.body.size();
  if (reply.action == Reply::Action::StallAfterHeaders && length == 0) {
    length = 1;
  }
  // A 204 has no body and so no length (the long poll's quiet answer).
  if (reply.status != 204) {
    head += "Content-Length: " + std::to_string(length) + "\r\n";
  }
  for (const auto& field : reply.headers) {
    head += field.first + ": " + field.second + "\r\n";
  }
  head += keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n";
  head += "\r\n";
  return head;
}

bool HttpStream::writeReply(const Reply& reply, bool keepAlive, bool omitBody) {
  std::string head = statusAndHeaders(reply, keepAlive);
  if (omitBody || reply.body.empty()) {
    return writeAll(head);
  }
  // Small answers go out in one record; large ones are not copied again.
  if (reply.body.size() <= kReadChunk) {
    return writeAll(head + reply.body);
  }
  return writeAll(head) && writeAll(reply.body);
}

bool HttpStream::writeHeadersOnly(const Reply& reply) {
  return writeAll(statusAndHeaders(reply, false));
}

bool HttpStream::writeTrickled(const Reply& reply, const std::function<bool()>& pause) {
  const std::string answer = statusAndHeaders(reply, false) + reply.body;
  for (char byte : answer) {
    if (!writeAll(std::string(1, byte)) || !pause()) {
      return false;
    }
  }
  return true;
}

bool HttpStream::writeHalf(const Reply& reply) {
  return writeAll(statusAndHeaders(reply, false) + reply.body.substr(0, reply.body.size() / 2));
}

void HttpStream::writeError(int status) {
  Reply reply;
  reply.status = status;
  reply.contentType = "text/plain";
  reply.body = std::string(ReasonPhrase(status)) + "\n";
  writeReply(reply, false, false);
}

const char* HttpStream::ReasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 202:
      return "Accepted";
    case 204:
      return "No Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 413:
      return "Payload Too Large";
    case 422:
      return "Unprocessable Entity";
    case 428:
      return "Precondition Required";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Status";
  }
}

}  // namespace Tools
}  // namespace Lum
