#include "tools/backend/MultipartParser.h"

#include <strings.h>

#include <cctype>

namespace Lum {
namespace Tools {

namespace {

std::string Trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
    ++begin;
  }
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
    --end;
  }
  return text.substr(begin, end - begin);
}

std::string Unquote(const std::string& text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    return text.substr(1, text.size() - 2);
  }
  return text;
}

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
  return text.size() >= prefix.size() &&
         strncasecmp(text.c_str(), prefix.c_str(), prefix.size()) == 0;
}

}  // namespace

std::string MultipartParser::Parameter(const std::string& value, const std::string& name) {
  size_t start = value.find(';');
  while (start != std::string::npos) {
    size_t end = value.find(';', start + 1);
    std::string item =
        Trim(value.substr(start + 1, end == std::string::npos ? end : end - start - 1));
    size_t equals = item.find('=');
    if (equals != std::string::npos &&
        strcasecmp(Trim(item.substr(0, equals)).c_str(), name.c_str()) == 0) {
      return Unquote(Trim(item.substr(equals + 1)));
    }
    start = end;
  }
  return std::string();
}

std::string MultipartParser::Boundary(const std::string& contentType) {
  if (!StartsWithNoCase(Trim(contentType), "multipart/form-data")) {
    return std::string();
  }
  return Parameter(contentType, "boundary");
}

void MultipartParser::ParsePartHeaders(const std::string& block, MultipartPart* part) {
  size_t lineStart = 0;
  while (lineStart < block.size()) {
    size_t lineEnd = block.find("\r\n", lineStart);
    if (lineEnd == std::string::npos) {
      lineEnd = block.size();
    }
    std::string line = block.substr(lineStart, lineEnd - lineStart);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      std::string name = Trim(line.substr(0, colon));
      std::string value = Trim(line.substr(colon + 1));
      if (strcasecmp(name.c_str(), "Content-Disposition") == 0) {
        part->name = Parameter(value, "name");
        part->filename = Parameter(value, "filename");
      } else if (strcasecmp(name.c_str(), "Content-Type") == 0) {
        part->contentType = value;
      }
    }
    lineStart = lineEnd + 2;
  }
}

bool MultipartParser::Parse(const std::string& boundary, const std::string& body,
                            std::vector<MultipartPart>* parts) {
  if (boundary.empty()) {
    return false;
  }
  const std::string delimiter = "--" + boundary;
  // Every delimiter after the first is preceded by a line break that belongs
  // to it, not to the part's content.
  const std::string innerDelimiter = "\r\n" + delimiter;
  size_t position = body.find(delimiter);
  if (position == std::string::npos) {
    return false;
  }
  position += delimiter.size();
  while (true) {
    if (body.compare(position, 2, "--") == 0) {
      return true;  // closing delimiter
    }
    if (body.compare(position, 2, "\r\n") != 0) {
      return false;
    }
    position += 2;
    size_t headersEnd = body.find("\r\n\r\n", position);
    if (headersEnd == std::string::npos) {
      return false;
    }
    MultipartPart part;
    ParsePartHeaders(body.substr(position, headersEnd - position), &part);
    size_t contentStart = headersEnd + 4;
    size_t contentEnd = body.find(innerDelimiter, contentStart);
    if (contentEnd == std::string::npos) {
      return false;
    }
    part.content = body.substr(contentStart, contentEnd - contentStart);
    parts->push_back(std::move(part));
    position = contentEnd + innerDelimiter.size();
  }
}

}  // namespace Tools
}  // namespace Lum
