#include "CurlTestClient.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace LumTest {

namespace {

size_t AppendBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

struct UploadSource {
  const std::string* body;
  size_t offset;
};

// Hands the body out in small pieces so that libcurl sends several chunks.
size_t ReadBody(char* buffer, size_t size, size_t count, void* user) {
  auto* source = static_cast<UploadSource*>(user);
  size_t left = source->body->size() - source->offset;
  size_t piece = std::min({left, size * count, static_cast<size_t>(1000)});
  memcpy(buffer, source->body->data() + source->offset, piece);
  source->offset += piece;
  return piece;
}

void SetBlob(CURL* curl, CURLoption option, const std::string& pem) {
  if (pem.empty()) {
    return;
  }
  curl_blob blob;
  blob.data = const_cast<char*>(pem.data());
  blob.len = pem.size();
  blob.flags = CURL_BLOB_COPY;
  curl_easy_setopt(curl, option, &blob);
}

}  // namespace

CurlResult PerformCurl(const CurlRequest& request) {
  static std::once_flag globalInit;
  std::call_once(globalInit, [] { curl_global_init(CURL_GLOBAL_ALL); });
  CurlResult result;
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    return result;
  }
  char errorBuffer[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYSTATUS, request.verifyStatus ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(curl, CURLOPT_SSLVERSION, request.minVersion | request.maxVersion);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, request.timeoutMs);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 5000L);
  SetBlob(curl, CURLOPT_SSLCERT_BLOB, request.certPem);
  SetBlob(curl, CURLOPT_SSLKEY_BLOB, request.keyPem);
  SetBlob(curl, CURLOPT_CAINFO_BLOB, request.caPem);
  if (!request.keyPassword.empty()) {
    curl_easy_setopt(curl, CURLOPT_KEYPASSWD, request.keyPassword.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);

  curl_slist* headers = nullptr;
  for (const auto& header : request.headers) {
    headers = curl_slist_append(headers, header.c_str());
  }
  curl_mime* mime = nullptr;
  UploadSource source{&request.body, 0};
  if (!request.parts.empty()) {
    mime = curl_mime_init(curl);
    for (const auto& part : request.parts) {
      curl_mimepart* field = curl_mime_addpart(mime);
      curl_mime_name(field, part.name.c_str());
      curl_mime_data(field, part.content.data(), part.content.size());
      if (!part.filename.empty()) {
        curl_mime_filename(field, part.filename.c_str());
      }
    }
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, mime);
  } else if (request.chunked) {
    headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, ReadBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &source);
  } else if (request.post) {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
  }
  if (request.method != "GET" && request.method != "POST") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);

  result.code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
  result.error = errorBuffer;
  curl_mime_free(mime);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return result;
}

}  // namespace LumTest
