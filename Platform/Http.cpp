#include "Platform/Http.h"

#include <openssl/bio.h>
#include <openssl/ocsp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include "Base/Injector.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/Http");

namespace Lum {
namespace Core {

namespace {

const int kCore = FilterProperties::SERVICE_CORE;
const int kFlow = FilterProperties::CATEGORY_FLOW;
const int kWeb = FilterProperties::CATEGORY_WEBSERVICE;
const int kTest = FilterProperties::CATEGORY_TEST;
const int kError = FilterProperties::SEVERITY_ERROR;
const int kInfo = FilterProperties::SEVERITY_INFO;
const int kDebug = FilterProperties::SEVERITY_DEBUG;
const int kTrace = FilterProperties::SEVERITY_TRACE;

const long kKeepAliveSeconds = 10;

// The back end's JSON answers are a few kilobytes; a server that sends more
// than this is cut off rather than allowed to fill the television's memory
// for as long as the message time-out lasts (large downloads go to a caller
// buffer of bounded size instead).
const size_t kMaxTextBodyBytes = 4 * 1024 * 1024;
const size_t kMaxHeaderBytes = 256 * 1024;

// An OCSP answer without nextUpdate never expires by libcurl's own check; one
// older than this is refused. The leeway allows for a clock a little off.
const long kOcspMaxAgeSeconds = 7L * 24 * 60 * 60;
const long kOcspClockLeewaySeconds = 300;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioDeleter>;

struct InfoStackDeleter {
  void operator()(STACK_OF(X509_INFO) * infos) const {
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
  }
};
using InfoStackPtr = std::unique_ptr<STACK_OF(X509_INFO), InfoStackDeleter>;

BioPtr MemoryBio(const char* pem) {
  return BioPtr(pem == nullptr ? nullptr : BIO_new_mem_buf(pem, -1));
}

// Every certificate of a PEM text, in order; null when none could be read.
InfoStackPtr ReadCertificates(const char* pem) {
  BioPtr bio = MemoryBio(pem);
  if (!bio) {
    return nullptr;
  }
  InfoStackPtr infos(PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
  if (!infos) {
    return nullptr;
  }
  // A PEM text may also carry keys or CRLs; only certificates count here.
  for (int i = sk_X509_INFO_num(infos.get()) - 1; i >= 0; --i) {
    if (sk_X509_INFO_value(infos.get(), i)->x509 == nullptr) {
      X509_INFO_free(sk_X509_INFO_delete(infos.get(), i));
    }
  }
  if (sk_X509_INFO_num(infos.get()) == 0) {
    return nullptr;
  }
  return infos;
}

// OpenSSL asks for the pass phrase only when the key is encrypted.
int PassPhraseCallback(char* buffer, int size, int /*rwflag*/, void* userData) {
  const char* password = static_cast<const char*>(userData);
  if (buffer == nullptr || size <= 0) {
    return 0;
  }
  size_t length = password == nullptr ? 0 : std::strlen(password);
  length = std::min(length, static_cast<size_t>(size - 1));
  if (length > 0) {
    std::memcpy(buffer, password, length);
  }
  buffer[length] = '\0';
  return static_cast<int>(length);
}

bool InstallClientKey(SSL_CTX* ctx, const Http::Request& request) {
  BioPtr bio = MemoryBio(request.clientKey);
  if (!bio) {
    return false;
  }
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio.get(), nullptr, PassPhraseCallback,
                                          const_cast<char*>(request.clientKeyPassword));
  if (key == nullptr) {
    return false;
  }
  const int installed = SSL_CTX_use_PrivateKey(ctx, key);
  EVP_PKEY_free(key);
  return installed == 1;
}

bool InstallClientCertificates(SSL_CTX* ctx, const Http::Request& request) {
  InfoStackPtr infos = ReadCertificates(request.clientCertificate);
  if (!infos) {
    return false;
  }
  if (SSL_CTX_use_certificate(ctx, sk_X509_INFO_value(infos.get(), 0)->x509) != 1) {
    return false;
  }
  // OpenSSL silently drops the installed key when it does not belong to the
  // certificate; the handshake would then go on without a client
  // certificate. Failing here names the real problem.
  if (SSL_CTX_check_private_key(ctx) != 1) {
    return false;
  }
  for (int i = 1; i < sk_X509_INFO_num(infos.get()); ++i) {
    X509* copy = X509_dup(sk_X509_INFO_value(infos.get(), i)->x509);
    if (copy == nullptr) {
      return false;
    }
    if (SSL_CTX_add_extra_chain_cert(ctx, copy) != 1) {  // takes ownership on success
      X509_free(copy);
      return false;
    }
  }
  return true;
}

// A fresh store holding only the given CAs replaces whatever the default
// trust store holds, so a certificate the system would accept is still
// refused unless it chains to one of ours.
bool InstallTrustedCertificates(SSL_CTX* ctx, const Http::Request& request) {
  InfoStackPtr infos = ReadCertificates(request.caCertificates);
  if (!infos) {
    return false;
  }
  X509_STORE* store = X509_STORE_new();
  if (store == nullptr) {
    return false;
  }
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    if (X509_STORE_add_cert(store, sk_X509_INFO_value(infos.get(), i)->x509) != 1) {
      X509_STORE_free(store);
      return false;
    }
  }
  SSL_CTX_set_cert_store(ctx, store);  // the context owns the store from here
  return true;
}

struct OcspResponseDeleter {
  void operator()(OCSP_RESPONSE* response) const { OCSP_RESPONSE_free(response); }
};
struct OcspBasicDeleter {
  void operator()(OCSP_BASICRESP* basic) const { OCSP_BASICRESP_free(basic); }
};

// Called by OpenSSL on the client during the handshake with the stapled OCSP
// answer. libcurl checks status, signature and nextUpdate after the
// handshake, but accepts an answer without nextUpdate however old it is; that
// is refused here (0 aborts the handshake). A missing or unreadable staple is
// left to libcurl, which refuses it anyway.
int OcspStatusCallback(SSL* ssl, void* /*arg*/) {
  const unsigned char* der = nullptr;
  const long length = SSL_get_tlsext_status_ocsp_resp(ssl, &der);
  if (der == nullptr || length <= 0) {
    return 1;
  }
  std::unique_ptr<OCSP_RESPONSE, OcspResponseDeleter> response(
      d2i_OCSP_RESPONSE(nullptr, &der, length));
  std::unique_ptr<OCSP_BASICRESP, OcspBasicDeleter> basic(
      response ? OCSP_response_get1_basic(response.get()) : nullptr);
  if (!basic) {
    return 1;
  }
  for (int i = 0; i < OCSP_resp_count(basic.get()); ++i) {
    ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
    ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
    OCSP_single_get0_status(OCSP_resp_get0(basic.get(), i), nullptr, nullptr, &thisUpdate,
                            &nextUpdate);
    if (nextUpdate == nullptr && OCSP_check_validity(thisUpdate, nullptr, kOcspClockLeewaySeconds,
                                                     kOcspMaxAgeSeconds) != 1) {
      return 0;
    }
  }
  return 1;
}

CURLcode SetUpSslContext(void* sslContext, void* userData) {
  SSL_CTX* ctx = static_cast<SSL_CTX*>(sslContext);
  const Http::Request* request = static_cast<const Http::Request*>(userData);
  if (!InstallClientKey(ctx, *request) || !InstallClientCertificates(ctx, *request)) {
    return CURLE_SSL_CERTPROBLEM;
  }
  if (!InstallTrustedCertificates(ctx, *request)) {
    return CURLE_PEER_FAILED_VERIFICATION;
  }
  // libcurl asks for a staple on the SSL it makes from this context, so
  // OpenSSL runs the callback on every handshake.
  if (SSL_CTX_set_tlsext_status_cb(ctx, OcspStatusCallback) != 1) {
    return CURLE_SSL_CERTPROBLEM;
  }
  return CURLE_OK;
}

size_t AppendBody(char* data, size_t size, size_t count, void* userData) {
  Http::Response* response = static_cast<Http::Response*>(userData);
  const size_t total = size * count;
  if (response->bodyBuffer == nullptr) {
    if (total > kMaxTextBodyBytes - std::min(response->body.size(), kMaxTextBodyBytes)) {
      LUM_LOG(kCore, kWeb, kError, "Answer body beyond %u bytes, transfer ended",
              static_cast<unsigned>(kMaxTextBodyBytes));
      return 0;  // libcurl ends the transfer with a write error
    }
    response->body.append(data, total);
    return total;
  }
  if (response->bodyMaxLength == 0) {
    return total;
  }
  const size_t room = response->bodyLength < response->bodyMaxLength
                          ? response->bodyMaxLength - response->bodyLength
                          : 0;
  const size_t copied = std::min(room, total);
  if (copied > 0) {
    std::memcpy(response->bodyBuffer + response->bodyLength, data, copied);
    response->bodyLength += static_cast<uint32_t>(copied);
  }
  if (copied < total) {
    response->bodyOverflow = true;
    if (response->stopAtMaxLength) {
      return copied;  // libcurl ends the transfer with a write error
    }
  }
  // The full count keeps libcurl going: an oversized body is truncated, not
  // turned into a transfer failure that would hide the real status.
  return total;
}

size_t AppendHeader(char* data, size_t size, size_t count, void* userData) {
  std::vector<std::string>* headers = static_cast<std::vector<std::string>*>(userData);
  const size_t total = size * count;
  size_t held = 0;
  for (const std::string& line : *headers) {
    held += line.size();
  }
  if (total > kMaxHeaderBytes - std::min(held, kMaxHeaderBytes)) {
    LUM_LOG(kCore, kWeb, kError, "Answer headers beyond %u bytes, transfer ended",
            static_cast<unsigned>(kMaxHeaderBytes));
    return 0;
  }
  headers->emplace_back(data, total);
  return total;
}

// What the progress callback of one transfer works with.
struct Progress {
  const Http::Request* request;
  Http::Response* response;
};

// libcurl calls this at least once a second, also while nothing arrives, so
// a cancel is noticed promptly; non-zero makes libcurl abandon the transfer.
int ProgressCallback(void* userData, curl_off_t /*downloadTotal*/, curl_off_t /*downloadNow*/,
                     curl_off_t uploadTotal, curl_off_t uploadNow) {
  Progress* progress = static_cast<Progress*>(userData);
  if (uploadNow == uploadTotal && uploadNow >= 1) {
    progress->response->uploadComplete = true;
  }
  return progress->request->cancelled() ? 1 : 0;
}

const char* DebugLabel(curl_infotype type) {
  switch (type) {
    case CURLINFO_TEXT:
      return "CURLINFO_TEXT        ";
    case CURLINFO_HEADER_IN:
      return "CURLINFO_HEADER_IN   ";
    case CURLINFO_HEADER_OUT:
      return "CURLINFO_HEADER_OUT  ";
    case CURLINFO_DATA_IN:
      return "CURLINFO_DATA_IN     ";
    case CURLINFO_DATA_OUT:
      return "CURLINFO_DATA_OUT    ";
    default:
      return "CURLINFO_UNKNOWN     ";
  }
}

int LogDebug(curl_infotype type, char* data, size_t size) {
  // Encrypted bytes are unreadable; only their amount is worth a line.
  if (type == CURLINFO_SSL_DATA_IN || type == CURLINFO_SSL_DATA_OUT) {
    LUM_LOG_AS("DebugCallback", kCore, kWeb, kTrace, "%s %u bytes",
               type == CURLINFO_SSL_DATA_IN ? "CURLINFO_SSL_DATA_IN " : "CURLINFO_SSL_DATA_OUT",
               static_cast<unsigned>(size));
    return 0;
  }
  LUM_LOG_AS("DebugCallback", kCore, kWeb, kTrace, "%s %s", DebugLabel(type),
             std::string(data, size).c_str());
  return 0;
}

// libcurl calls these from its C frames, which an exception must not unwind
// (an exhausted heap in a list or a copy would leave the transfer's
// connection and TLS state behind): a throw becomes the callback's failure.
template <typename Result, typename Body>
Result Contained(Result onThrow, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return onThrow;
  }
}

CURLcode SslContextCallback(CURL* /*curl*/, void* sslContext, void* userData) {
  return Contained(CURLE_SSL_CERTPROBLEM, [&] { return SetUpSslContext(sslContext, userData); });
}

size_t BodyCallback(char* data, size_t size, size_t count, void* userData) {
  return Contained<size_t>(0, [&] { return AppendBody(data, size, count, userData); });
}

size_t HeaderCallback(char* data, size_t size, size_t count, void* userData) {
  return Contained<size_t>(0, [&] { return AppendHeader(data, size, count, userData); });
}

int DebugCallback(CURL* /*curl*/, curl_infotype type, char* data, size_t size, void* /*userData*/) {
  return Contained(0, [&] { return LogDebug(type, data, size); });
}

// Option failures are logged under the option's own name. Most never stop
// the request, a missing tunable should not cost the call; only the options
// that protect the connection are checked by the caller.
template <typename T>
bool SetOption(CURL* handle, CURLoption option, T value, const char* name) {
  const CURLcode code = curl_easy_setopt(handle, option, value);
  if (code != CURLE_OK) {
    LUM_LOG(kCore, kWeb, kError, "%s failed with code %d - \"%s\"", name, static_cast<int>(code),
            curl_easy_strerror(code));
  }
  return code == CURLE_OK;
}
#define LUM_SET_OPTION(handle, option, value) SetOption((handle), (option), (value), #option)

template <typename T>
void GetInfo(CURL* handle, CURLINFO info, T* value, const char* name) {
  const CURLcode code = curl_easy_getinfo(handle, info, value);
  if (code != CURLE_OK) {
    LUM_LOG(kCore, kWeb, kError, "%s failed with code %d - \"%s\"", name, static_cast<int>(code),
            curl_easy_strerror(code));
  }
}
#define LUM_GET_INFO(handle, info, value) GetInfo((handle), (info), (value), #info)

// A body that is JSON is shown as JSON; anything else as plain text.
void AddBody(const std::string& body, LumJson::Value* object) {
  LumJson::Value parsed;
  if (JsonUtil::ParseStrict(body, parsed)) {
    (*object)["body"] = parsed;
  } else {
    (*object)["bodyString"] = body;
  }
}

LumJson::Value LinesToJson(const std::vector<std::string>& lines) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& line : lines) {
    array.append(line);
  }
  return array;
}

curl_slist* BuildHeaderList(const std::vector<std::string>& headers) {
  curl_slist* list = nullptr;
  for (const std::string& header : headers) {
    curl_slist* extended = curl_slist_append(list, header.c_str());
    if (extended == nullptr) {
      LUM_LOG(kCore, kWeb, kError, "curl_slist_append failed for header %s", header.c_str());
      continue;
    }
    list = extended;
  }
  return list;
}

// The multipart API of the libcurl release this agent targets is marked
// deprecated in its headers, although it is fully supported there; the
// replacement MIME API is not what the back end's upload contract was
// written against, so the warning is silenced for these calls only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

curl_httppost* BuildForm(const Http::Request& request) {
  // A buffer length of 0 makes libcurl take strlen of the buffer, reading up
  // to a NUL that may lie past its end; an empty string is the same empty
  // part with the NUL in place.
  static const char kNoData[] = "";
  const void* data = request.dataLength == 0 ? static_cast<const void*>(kNoData) : request.data;
  curl_httppost* first = nullptr;
  curl_httppost* last = nullptr;
  CURLFORMcode code = curl_formadd(&first, &last, CURLFORM_COPYNAME, "data", CURLFORM_BUFFER,
                                   "data", CURLFORM_BUFFERPTR, data, CURLFORM_BUFFERLENGTH,
                                   static_cast<long>(request.dataLength), CURLFORM_END);
  if (code != CURL_FORMADD_OK) {
    LUM_LOG(kCore, kWeb, kError, "curl_formadd failed with code %d", static_cast<int>(code));
  }
  if (!request.token.empty()) {
    code = curl_formadd(&first, &last, CURLFORM_COPYNAME, "token", CURLFORM_BUFFER, "token",
                        CURLFORM_BUFFERPTR, request.token.data(), CURLFORM_BUFFERLENGTH,
                        static_cast<long>(request.token.size()), CURLFORM_END);
    if (code != CURL_FORMADD_OK) {
      LUM_LOG(kCore, kWeb, kError, "curl_formadd failed with code %d", static_cast<int>(code));
    }
  }
  return first;
}

void SetFormOption(CURL* handle, curl_httppost* form) {
  LUM_SET_OPTION(handle, CURLOPT_HTTPPOST, form);
}

void FreeForm(curl_httppost* form) {
  curl_formfree(form);
}

#pragma GCC diagnostic pop

// False when an option that protects the connection could not be set.
bool SetCommonOptions(Http::Request& request, Http::Response& response, curl_slist* headerList,
                      Progress* progress) {
  CURL* handle = request.handle;
  if (Logger::Instance().test(kCore, kWeb, kTrace)) {
    LUM_SET_OPTION(handle, CURLOPT_VERBOSE, 1L);
    LUM_SET_OPTION(handle, CURLOPT_DEBUGFUNCTION, DebugCallback);
  }
  // Without any one of these the request would go out less protected than
  // it claims (unverified, over an old protocol, trusting the system's CAs or
  // over another scheme), so a failure to set one stops it. All are tried,
  // in order, so that every failure is logged.
  const bool secured[] = {
      LUM_SET_OPTION(handle, CURLOPT_SSL_CTX_DATA, static_cast<void*>(&request)),
      LUM_SET_OPTION(handle, CURLOPT_SSL_CTX_FUNCTION, SslContextCallback),
      LUM_SET_OPTION(handle, CURLOPT_SSL_VERIFYPEER, 1L),
      LUM_SET_OPTION(handle, CURLOPT_SSL_VERIFYHOST, 2L),
      LUM_SET_OPTION(handle, CURLOPT_SSL_VERIFYSTATUS, 1L),
      LUM_SET_OPTION(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)),
      // libcurl loads its compiled-in CA file and directory into the
      // context's store after the SSL-context callback has run, and may swap
      // in a store cached from an earlier transfer: either would trust the
      // system's CAs besides the identity's, for the server and for its OCSP
      // staple alike.
      LUM_SET_OPTION(handle, CURLOPT_CAINFO, static_cast<const char*>(nullptr)),
      LUM_SET_OPTION(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr)),
      LUM_SET_OPTION(handle, CURLOPT_CA_CACHE_TIMEOUT, 0L),
      // The back end speaks HTTPS only; any other scheme in a configured or
      // redirected URL (file, plain http, ...) would bypass TLS altogether.
      LUM_SET_OPTION(handle, CURLOPT_PROTOCOLS_STR, "https"),
      LUM_SET_OPTION(handle, CURLOPT_REDIR_PROTOCOLS_STR, "https"),
  };
  LUM_SET_OPTION(handle, CURLOPT_NOSIGNAL, 1L);
  LUM_SET_OPTION(handle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  LUM_SET_OPTION(handle, CURLOPT_SSL_CIPHER_LIST, "HIGH");
  LUM_SET_OPTION(handle, CURLOPT_URL, request.url.c_str());
  LUM_SET_OPTION(handle, CURLOPT_WRITEFUNCTION, BodyCallback);
  LUM_SET_OPTION(handle, CURLOPT_WRITEDATA, static_cast<void*>(&response));
  LUM_SET_OPTION(handle, CURLOPT_HEADERFUNCTION, HeaderCallback);
  LUM_SET_OPTION(handle, CURLOPT_HEADERDATA, static_cast<void*>(&response.headers));
  LUM_SET_OPTION(handle, CURLOPT_XFERINFOFUNCTION, ProgressCallback);
  LUM_SET_OPTION(handle, CURLOPT_XFERINFODATA, static_cast<void*>(progress));
  LUM_SET_OPTION(handle, CURLOPT_NOPROGRESS, 0L);
  // Both fit a 32-bit long once clamped, and neither can be 0, which
  // libcurl reads as no limit at all.
  const uint32_t connectTimeout = Http::ClampConnectTimeoutMs(request.connectTimeout);
  LUM_SET_OPTION(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeout));
  LUM_SET_OPTION(handle, CURLOPT_TIMEOUT_MS,
                 static_cast<long>(Http::ClampMessageTimeoutMs(request.messageTimeout)));
  // A server silent for longer than we would wait for a connection has
  // stalled; without this only the message time-out would end the transfer.
  LUM_SET_OPTION(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
  LUM_SET_OPTION(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>((connectTimeout + 999) / 1000));
  if (request.keepAlive) {
    LUM_LOG(kCore, kWeb, kDebug, "Setting up reusable curl handle with TCP keep alive");
    LUM_SET_OPTION(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    LUM_SET_OPTION(handle, CURLOPT_TCP_KEEPIDLE, kKeepAliveSeconds);
    LUM_SET_OPTION(handle, CURLOPT_TCP_KEEPINTVL, kKeepAliveSeconds);
  }
  LUM_SET_OPTION(handle, CURLOPT_HTTPHEADER, headerList);
  return std::all_of(std::begin(secured), std::end(secured), [](bool set) { return set; });
}

curl_httppost* SetVerbOptions(Http::Request& request) {
  CURL* handle = request.handle;
  switch (request.verb) {
    case Http::GET:
      LUM_SET_OPTION(handle, CURLOPT_HTTPGET, 1L);
      return nullptr;
    case Http::DELETE:
      // Sent in lower case on purpose; the back end accepts exactly this.
      LUM_SET_OPTION(handle, CURLOPT_CUSTOMREQUEST, "delete");
      return nullptr;
    case Http::POST:
      if (request.data != nullptr) {
        curl_httppost* form = BuildForm(request);
        SetFormOption(handle, form);
        return form;
      }
      LUM_SET_OPTION(handle, CURLOPT_POST, 1L);
      LUM_SET_OPTION(handle, CURLOPT_POSTFIELDS, request.body.c_str());
      LUM_SET_OPTION(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
      return nullptr;
  }
  return nullptr;  // an unknown verb leaves libcurl's default, a GET
}

void ReadTransferInfo(Http::Request& request, Http::Response& response) {
  LUM_GET_INFO(request.handle, CURLINFO_RESPONSE_CODE, &response.statusCode);
  response.answered = true;
  // The whole-number speed queries replace the floating-point ones, which
  // libcurl has marked deprecated; failures keep the established names.
  curl_off_t uploadSpeed = 0;
  curl_off_t downloadSpeed = 0;
  GetInfo(request.handle, CURLINFO_SPEED_UPLOAD_T, &uploadSpeed, "CURLINFO_SPEED_UPLOAD");
  GetInfo(request.handle, CURLINFO_SPEED_DOWNLOAD_T, &downloadSpeed, "CURLINFO_SPEED_DOWNLOAD");
  response.uploadSpeed = static_cast<double>(uploadSpeed);
  response.downloadSpeed = static_cast<double>(downloadSpeed);
  Http::PrintResponse(request, response);
  if (response.statusCode >= 300) {
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Status: %d", static_cast<int>(response.statusCode));
  }
}

}  // namespace

// Never destroyed: a transfer may still start while the host exits.
Mutex& Http::globalMutex_ = *new Mutex();
bool Http::curlGlobalInitDone_ = false;

const char* Http::VerbToString(int verb) {
  switch (verb) {
    case POST:
      return "POST";
    case GET:
      return "GET";
    case DELETE:
      return "DELETE";
    default:
      return "UNKNOWN";
  }
}

void Http::Initialize(bool /*sslCryptoInit*/, bool curlGlobalInit) {
  LUM_TRACE(kCore);
  {
    LockMutex lock(&globalMutex_);
    if (curlGlobalInit && !curlGlobalInitDone_) {
      LUM_LOG(kCore, kFlow, kInfo, "Performing curl_global_init()");
      const CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
      if (code == CURLE_OK) {
        curlGlobalInitDone_ = true;
      } else {
        LUM_LOG(kCore, kWeb, kError, "curl_global_init() failed with code %d - \"%s\"",
                static_cast<int>(code), curl_easy_strerror(code));
      }
    } else {
      LUM_LOG(kCore, kFlow, kInfo, "Not performing curl_global_init()");
    }
  }
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  if (info != nullptr && info->version != nullptr) {
    LUM_LOG(kCore, kWeb, kInfo, "Curl version is %s %s", info->version,
            info->ssl_version != nullptr ? info->ssl_version : "");
  } else {
    LUM_LOG(kCore, kWeb, kError, "Curl version cannot be determined");
  }
}

void Http::Terminate() {
  LUM_TRACE(kCore);
  LockMutex lock(&globalMutex_);
  if (curlGlobalInitDone_) {
    curl_global_cleanup();
    curlGlobalInitDone_ = false;
  } else {
    LUM_LOG(kCore, kFlow, kInfo, "Not performing curl_global_cleanup()");
  }
}

void Http::Cleanup(Request& request) {
  LUM_TRACE(kCore);
  if (request.handle != nullptr) {
    LUM_LOG(kCore, kWeb, kDebug, "curl_easy_cleanup()");
    curl_easy_cleanup(request.handle);
    request.handle = nullptr;
  }
}

uint32_t Http::ClampConnectTimeoutMs(uint32_t milliseconds) {
  return std::clamp(milliseconds, kMinTimeoutMs, kMaxConnectTimeoutMs);
}

uint32_t Http::ClampMessageTimeoutMs(uint32_t milliseconds) {
  return std::clamp(milliseconds, kMinTimeoutMs, kMaxMessageTimeoutMs);
}

void Http::Perform(Request& request, Response& response) {
  try {
    Transfer(request, response);
  } catch (...) {
    // A throw mid-call (an exhausted heap) must not take the
    // handle and its connection with it.
    if (request.handle != nullptr) {
      curl_easy_cleanup(request.handle);
      request.handle = nullptr;
    }
    throw;
  }
}

void Http::Transfer(Request& request, Response& response) {
  LUM_TRACE(kCore);
  response.statusCode = 400;
  response.answered = false;
  response.headers.clear();
  response.body.clear();
  response.bodyOverflow = false;
  response.uploadComplete = false;
  response.uploadSpeed = 0;
  response.downloadSpeed = 0;

  Injector::Instance().mock(request, response);
  PrintRequest(request);
  if (request.mock) {
    PrintResponse(request, response);
    return;
  }

  if (request.handle == nullptr) {
    LUM_LOG(kCore, kWeb, kDebug, "curl_easy_init()");
    request.handle = curl_easy_init();
    if (request.handle == nullptr) {
      LUM_LOG(kCore, kWeb, kError, "curl_easy_init() failed, aborting Http::Perform()");
      return;
    }
  }

  // Owned from here so that a throw (an exhausted heap) does
  // not leak them.
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerList(
      BuildHeaderList(request.headers), &curl_slist_free_all);
  std::unique_ptr<curl_httppost, decltype(&FreeForm)> form(nullptr, &FreeForm);
  Progress progress{&request, &response};
  bool performed = false;
  CURLcode code = CURLE_OK;
  if (!SetCommonOptions(request, response, headerList.get(), &progress)) {
    LUM_LOG(kCore, kWeb, kError, "TLS protection incomplete, the request is not sent");
  } else if (request.cancelled()) {
    LUM_LOG(kCore, kWeb, kInfo, "Request cancelled, not sent");
  } else {
    form.reset(SetVerbOptions(request));
    code = curl_easy_perform(request.handle);
    performed = true;
  }

  form.reset();
  request.headers.clear();
  request.body.clear();

  const bool cutOff =
      code == CURLE_WRITE_ERROR && response.stopAtMaxLength && response.bodyOverflow;
  if (performed && (code == CURLE_OK || cutOff)) {
    if (cutOff) {
      LUM_LOG(kCore, kWeb, kInfo, "Response body cut off at %u bytes", response.bodyMaxLength);
    }
    ReadTransferInfo(request, response);
    // A cut-off connection still carries the unread rest: never reused.
    if (request.keepAlive && !cutOff) {
      // The options just used point at the form, header list and body freed
      // above, and a custom method would stick to the next call. Resetting
      // keeps the live connection but none of this call's settings.
      curl_easy_reset(request.handle);
      return;
    }
  } else if (performed) {
    LUM_LOG(kCore, kWeb, kInfo, "curl_easy_perform() failed with code %d - \"%s\"",
            static_cast<int>(code), curl_easy_strerror(code));
  }
  LUM_LOG(kCore, kWeb, kDebug, "curl_easy_cleanup()");
  curl_easy_cleanup(request.handle);
  request.handle = nullptr;
}

void Http::PrintRequest(const Request& request) {
  if (Logger::Instance().test(kCore, kWeb, kDebug)) {
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Request Verb                    : %s",
            VerbToString(request.verb));
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Request URL                     : %s", request.url.c_str());
    for (const std::string& header : request.headers) {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Request Header                  : %s", header.c_str());
    }
    if (request.data != nullptr) {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Request Body Length             : %u", request.dataLength);
    } else {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Request Body                    : %s",
              request.body.c_str());
    }
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Connect Timeout                 : %u",
            request.connectTimeout);
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Message Timeout                 : %u",
            request.messageTimeout);
  }
  if (Logger::Instance().test(kCore, kTest, kDebug)) {
    LumJson::Value fields(LumJson::objectValue);
    fields["connectTimeout"] = request.connectTimeout;
    fields["messageTimeout"] = request.messageTimeout;
    fields["verb"] = VerbToString(request.verb);
    fields["url"] = request.url;
    fields["mock"] = request.mock;
    fields["headers"] = LinesToJson(request.headers);
    if (request.data != nullptr) {
      fields["bodyLength"] = request.dataLength;
    } else {
      AddBody(request.body, &fields);
    }
    LumJson::Value root(LumJson::objectValue);
    root["httpRequest"] = fields;
    LUM_LOG(kCore, kTest, kDebug, "%s", JsonUtil::WriteCompact(root).c_str());
  }
}

void Http::PrintResponse(const Request& request, const Response& response) {
  if (Logger::Instance().test(kCore, kWeb, kDebug)) {
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Request Upload Speed            : %g", response.uploadSpeed);
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Down Speed             : %g",
            response.downloadSpeed);
    LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Code                   : %d",
            static_cast<int>(response.statusCode));
    for (const std::string& header : response.headers) {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Header                 : %s", header.c_str());
    }
    if (response.bodyBuffer != nullptr) {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Body Length            : %u of %u",
              response.bodyLength, response.bodyMaxLength);
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Overflow               : %s",
              response.bodyOverflow ? "true" : "false");
    } else {
      LUM_LOG(kCore, kWeb, kDebug, "HTTP Response Body                   : %s",
              response.body.c_str());
    }
  }
  if (Logger::Instance().test(kCore, kTest, kDebug)) {
    LumJson::Value fields(LumJson::objectValue);
    fields["url"] = request.url;
    fields["mock"] = request.mock;
    fields["statusCode"] = static_cast<LumJson::Int64>(response.statusCode);
    fields["headers"] = LinesToJson(response.headers);
    if (response.bodyBuffer != nullptr) {
      fields["bodyLength"] = response.bodyLength;
      fields["bodyMaxLength"] = response.bodyMaxLength;
      fields["bodyOverflow"] = response.bodyOverflow;
    } else {
      AddBody(response.body, &fields);
    }
    LumJson::Value root(LumJson::objectValue);
    root["httpResponse"] = fields;
    LUM_LOG(kCore, kTest, kDebug, "%s", JsonUtil::WriteCompact(root).c_str());
  }
}

}  // namespace Core
}  // namespace Lum
