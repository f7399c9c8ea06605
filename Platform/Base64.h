#pragma once

// Base64 with the standard alphabet and "=" padding, no line breaks. These two
// plain functions do the work behind Lum::Core::Base64Util and are used where a
// C-style buffer is wanted. Both outputs come from malloc and are freed by the
// caller with free().

// Encodes `length` bytes. `out` receives a NUL-terminated text of `outLength`
// characters (the NUL not counted); on allocation failure `out` is null and
// `outLength` 0.
void base64_encode(const unsigned char* in, unsigned length, char*& out, unsigned& outLength);

// Decodes the leading run of Base64 characters of `in`: decoding ends at the
// first "=" or at the first character outside the alphabet (whitespace and line
// breaks included). A trailing group of 2 or 3 characters yields 1 or 2 bytes.
// `out` is NUL-terminated after its `outLength` bytes; on allocation failure it
// is null and `outLength` 0.
void base64_decode(const char* in, unsigned length, unsigned char*& out, unsigned& outLength);
