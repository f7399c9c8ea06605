#include "Platform/Base64.h"

#include <cstdint>
#include <cstdlib>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kInvalid = 0xff;

// Maps every byte to its 6-bit value, or kInvalid for bytes outside the
// alphabet ("=" included), built once at compile time so decoding is a lookup.
struct DecodeTable {
  unsigned char value[256];
  constexpr DecodeTable() : value() {
    for (int i = 0; i < 256; ++i) value[i] = kInvalid;
    for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kAlphabet[i])] = i;
  }
};
constexpr DecodeTable kDecode;

void encodeGroup(uint32_t bits, char* out) {
  out[0] = kAlphabet[(bits >> 18) & 0x3f];
  out[1] = kAlphabet[(bits >> 12) & 0x3f];
  out[2] = kAlphabet[(bits >> 6) & 0x3f];
  out[3] = kAlphabet[bits & 0x3f];
}

}  // namespace

void base64_encode(const unsigned char* in, unsigned length, char*& out, unsigned& outLength) {
  const size_t groups = (static_cast<size_t>(length) + 2) / 3;
  out = static_cast<char*>(malloc(groups * 4 + 1));
  outLength = 0;
  if (out == nullptr) {
    return;
  }
  char* dst = out;
  unsigned i = 0;
  for (; length - i >= 3; i += 3, dst += 4) {
    encodeGroup((uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2], dst);
  }
  const unsigned rest = length - i;
  if (rest > 0) {
    // Zero-extend the last one or two bytes; the characters that carry only
    // padding bits become "=".
    uint32_t bits = uint32_t{in[i]} << 16;
    if (rest == 2) bits |= uint32_t{in[i + 1]} << 8;
    encodeGroup(bits, dst);
    dst[3] = '=';
    if (rest == 1) dst[2] = '=';
    dst += 4;
  }
  *dst = '\0';
  outLength = static_cast<unsigned>(dst - out);
}

void base64_decode(const char* in, unsigned length, unsigned char*& out, unsigned& outLength) {
  out = static_cast<unsigned char*>(malloc((static_cast<size_t>(length) + 1) * 3 / 4 + 1));
  outLength = 0;
  if (out == nullptr) {
    return;
  }
  unsigned char* dst = out;
  uint32_t bits = 0;
  int count = 0;
  for (unsigned i = 0; i < length; ++i) {
    const unsigned char value = kDecode.value[static_cast<unsigned char>(in[i])];
    if (value == kInvalid) {
      break;
    }
    bits = (bits << 6) | value;
    if (++count == 4) {
      dst[0] = static_cast<unsigned char>(bits >> 16);
      dst[1] = static_cast<unsigned char>(bits >> 8);
      dst[2] = static_cast<unsigned char>(bits);
      dst += 3;
      bits = 0;
      count = 0;
    }
  }
  // A trailing group of n characters holds n - 1 whole bytes; a lone
  // character carries fewer than 8 bits and yields nothing.
  if (count >= 2) {
    bits <<= 6 * (4 - count);
    dst[0] = static_cast<unsigned char>(bits >> 16);
    if (count == 3) dst[1] = static_cast<unsigned char>(bits >> 8);
    dst += count - 1;
  }
  *dst = '\0';
  outLength = static_cast<unsigned>(dst - out);
}
