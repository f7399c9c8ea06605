#pragma once

namespace Lum {
namespace Core {

// The process's random source: OpenSSL's generator, which is thread-safe.
class RandomUtil {
 public:
  // Mixes `length` bytes into the generator's state.
  static void SetSeed(const void* seed, int length);
  // Fills `buffer` with `length` random bytes. A generator failure is not
  // reported (the agent draws these bytes for delay jitter, where any value
  // will do); the buffer is then zero-filled rather than left indeterminate.
  static void GetBytes(void* buffer, int length);
  // Kept for the termination sequence; OpenSSL releases its generator itself.
  static void Cleanup();
};

}  // namespace Core
}  // namespace Lum
