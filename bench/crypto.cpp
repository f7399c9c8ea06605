#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "Platform/Base64.h"
#include "Platform/Sha256Util.h"

namespace {

const size_t kMegabyte = 1 << 20;

std::string Pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + 7) & 0xff);
  return bytes;
}

void Sha256Megabyte(benchmark::State& state) {
  const std::string in = Pattern(kMegabyte);
  std::string out;
  for (auto _ : state) {
    Lum::Core::Sha256Util::Hash(in, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMegabyte);
}
BENCHMARK(Sha256Megabyte);

void Base64EncodeMegabyte(benchmark::State& state) {
  const std::string in = Pattern(kMegabyte);
  for (auto _ : state) {
    char* out = nullptr;
    unsigned length = 0;
    base64_encode(reinterpret_cast<const unsigned char*>(in.data()),
                  static_cast<unsigned>(in.size()), out, length);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMegabyte);
}
BENCHMARK(Base64EncodeMegabyte);

// Decodes the Base64 text of 1 MB of bytes; throughput counts the decoded bytes.
void Base64DecodeMegabyte(benchmark::State& state) {
  const std::string bytes = Pattern(kMegabyte);
  char* text = nullptr;
  unsigned textLength = 0;
  base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned>(bytes.size()), text, textLength);
  for (auto _ : state) {
    unsigned char* out = nullptr;
    unsigned length = 0;
    base64_decode(text, textLength, out, length);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  free(text);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMegabyte);
}
BENCHMARK(Base64DecodeMegabyte);

}  // namespace
