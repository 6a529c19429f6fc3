// TEA speed: clsTEA encrypting a 1 MiB buffer into its frame, next to a plain
// loop of the published TEA algorithm over a buffer of the same size (their
// ratio is what the frame format, the progress events and the class cost).

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "crypto/tea.h"

namespace tavrix::bench {
namespace {

constexpr size_t kBufferBytes = 1 << 20;

std::vector<uint8_t> Plaintext() {
  std::vector<uint8_t> data(kBufferBytes);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
  return data;
}

void BM_TeaEncryptByte(benchmark::State& state) {
  const std::vector<uint8_t> plain = Plaintext();
  clsTEA tea([] { return 0.5; });
  tea.Key("benchmark key");
  std::vector<uint8_t> data;
  for (auto _ : state) {
    data = plain;
    tea.EncryptByte(data);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_TeaEncryptByte)->Unit(benchmark::kMillisecond);

// The published algorithm as a plain loop: 32 cycles, delta 0x9E3779B9, the
// two words of each 8-byte block read and written big-endian.
void ReferenceTeaEncipher(uint8_t* data, size_t size, const uint32_t k[4]) {
  for (size_t pos = 0; pos + 8 <= size; pos += 8) {
    uint8_t* b = data + pos;
    uint32_t y = uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
    uint32_t z = uint32_t(b[4]) << 24 | uint32_t(b[5]) << 16 | uint32_t(b[6]) << 8 | b[7];
    uint32_t sum = 0;
    for (int n = 0; n < 32; ++n) {
      sum += 0x9E3779B9u;
      y += ((z << 4) + k[0]) ^ (z + sum) ^ ((z >> 5) + k[1]);
      z += ((y << 4) + k[2]) ^ (y + sum) ^ ((y >> 5) + k[3]);
    }
    for (int i = 0; i < 4; ++i) {
      b[i] = static_cast<uint8_t>(y >> (24 - 8 * i));
      b[4 + i] = static_cast<uint8_t>(z >> (24 - 8 * i));
    }
  }
}

void BM_TeaReferenceLoop(benchmark::State& state) {
  const std::vector<uint8_t> plain = Plaintext();
  const TeaKey key = teaKeyFromText("benchmark key");
  std::vector<uint8_t> data;
  for (auto _ : state) {
    data = plain;
    ReferenceTeaEncipher(data.data(), data.size(), key.data());
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_TeaReferenceLoop)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
