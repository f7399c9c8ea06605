#pragma once

#include <string>

namespace Lum {
namespace Core {

// The client credentials for mutual TLS towards the back end: private key,
// certificate, trusted authorities and the key's pass phrase. The platform
// supplies the pass phrase; the identity text of LumInit may override it and
// supplies the rest.
//
// Besides the texts it keeps a NUL-terminated malloc'd copy of each, which the
// HTTP layer hands to libcurl; the copies live as long as the object.
// Written only by the constructor and read-only afterwards, so it needs no
// mutex of its own (the core manager owns it under its mutex).
class ProductIdentity {
 public:
  // `identity`: the identity JSON text; null counts as empty. A text that is
  // not a JSON object leaves the platform's values.
  explicit ProductIdentity(const char* identity);
  ~ProductIdentity();
  ProductIdentity(const ProductIdentity&) = delete;
  ProductIdentity& operator=(const ProductIdentity&) = delete;

  // Never null; an empty value gives "".
  const char* getKey() const { return Text(keyCopy_); }
  const char* getCert() const { return Text(certCopy_); }
  const char* getTrust() const { return Text(trustCopy_); }
  const char* getPassword() const { return Text(passwordCopy_); }

  // Sizes and presence only: the credentials themselves never reach a log.
  void logStateDebug() const;

 private:
  // Product hook, run before the text is read.
  void setCustomValues();
  void takeMembers(const char* identity);
  void makeCopies();
  void freeCopies();

  static const char* Text(const char* copy) { return copy != nullptr ? copy : ""; }

  std::string key_;
  std::string cert_;
  std::string trust_;
  std::string password_;
  char* keyCopy_ = nullptr;  // null only when malloc failed
  char* certCopy_ = nullptr;
  char* trustCopy_ = nullptr;
  char* passwordCopy_ = nullptr;
};

}  // namespace Core
}  // namespace Lum
