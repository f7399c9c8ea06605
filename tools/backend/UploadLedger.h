#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace Lum {
namespace Tools {

// A data package as the back end accepted it.
struct ReceivedPackage {
  std::string commonName;  // the uploading device
  uint32_t dropped = 0;
  uint32_t rejected = 0;
  // Each item's text exactly as it stood in the package (the agent sends
  // them compact), in package order.
  std::vector<std::string> items;
  std::string text;  // the whole package text
};

// The data-services side of the back end: one-time upload tokens, each bound
// to a device, a package hash and a region, and the packages they delivered.
// A token is spent by the first upload that presents it, whatever that
// upload's outcome, so a device can never deliver twice on one token.
// All operations are thread-safe (mutex_).
class UploadLedger {
 public:
  enum class Verdict {
    Accepted,
    UnknownToken,  // never issued, or issued to another device
    UsedToken,
    WrongHost,     // not the upload host of the token's region
    HashMismatch,  // the data is not the package whose hash bought the token
    BadPackage,    // hash matched, but the text is not a version 2 package
  };

  // "OPID-ds.INSTANCE" and "OPID-dsdata-REGION.INSTANCE" for a device
  // certificate "OPID.INSTANCE": the hosts the agent must address.
  static std::string TokenHost(const std::string& commonName);
  static std::string UploadHost(const std::string& commonName, const std::string& region);
  // Host names compare without regard to case.
  static bool SameHost(const std::string& a, const std::string& b);
  static bool IsSha256Hex(const std::string& text);
  static std::string Sha256Hex(const std::string& data);
  static const char* VerdictToString(Verdict verdict);

  std::string issue(const std::string& commonName, const std::string& hash,
                    const std::string& region);
  // Checks an upload (token, then host, then hash, then format) and stores
  // the package when all hold; *package receives it.
  Verdict accept(const std::string& commonName, const std::string& host, const std::string& token,
                 const std::string& data, ReceivedPackage* package);

  unsigned tokensIssued() const;
  std::vector<ReceivedPackage> packages() const;
  std::vector<LumJson::Value> dataItems() const;
  bool waitForPackages(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForDataItems(size_t n, std::chrono::milliseconds timeout) const;

 private:
  struct Grant {
    std::string commonName;
    std::string hash;
    std::string region;
    bool used = false;
  };

  static bool ParsePackage(const std::string& text, ReceivedPackage* package);

  mutable std::mutex mutex_;
  mutable std::condition_variable stored_;  // signalled when a package is stored
  std::map<std::string, Grant> grants_;     // by token; guarded by mutex_
  std::vector<ReceivedPackage> packages_;   // arrival order; guarded by mutex_
  size_t itemCount_ = 0;                    // items in packages_; guarded by mutex_
  unsigned long tokenCounter_ = 0;          // guarded by mutex_
};

}  // namespace Tools
}  // namespace Lum
