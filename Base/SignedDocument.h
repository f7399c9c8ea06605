#pragma once

#include <string>

namespace Lum {
namespace Core {

// A document the back end signed, as it travels: the envelope
//   {"document": "<JSON text>", "signature": "<Base64 RSA-SHA512>",
//    "certificate": "<PEM>"}
// The document is signed as text, so no canonical form of JSON is needed:
// the signature covers exactly the bytes of "document". Whatever names what
// the device installs (an update, a set of objects) is opened through here,
// so that a compromised or mistaken transport cannot make it install
// anything. Stateless; safe from any thread.
class SignedDocument {
 public:
  // True, with the document's text, only when the envelope parses, its three
  // members are texts, the signing certificate chains to `trustPem` (the
  // identity's trusted certificates) and the signature verifies with that
  // certificate's key over the document's bytes. Otherwise false with a
  // short reason in `why` for the caller's log line; `documentText` is then
  // left empty.
  static bool Open(const std::string& envelopeText, const std::string& trustPem,
                   std::string& documentText, std::string& why);
};

}  // namespace Core
}  // namespace Lum
