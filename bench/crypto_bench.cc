// TEA throughput against a plain loop of the published algorithm, and the
// peak memory of decrypting a large encrypted file.
//
//   bench/run --quick                 (all benchmarks, this file's among them)
//   build-bench/bench/tavrix_bench --benchmark_filter=Tea\|Reference
//   TAVRIX_BENCH_FILE_MIB=64 build-bench/bench/tavrix_bench --benchmark_filter=TeaDecryptFile
// The file benchmark decrypts 1 GiB by default (2 GiB of temporary space).
//
// Peak memory: before the file is decrypted the process's peak resident set
// is reset (writing 5 to /proc/self/clear_refs) and afterwards read back as
// VmHWM from /proc/self/status, so the figure is what the decryption itself
// needed, not what setting up the file took. It is reported as the counter
// peak_rss_MiB.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "crypto/tea.h"
#include "machine_door.h"

namespace {

constexpr size_t kBufferBytes = 1 << 20;

// The published TEA block routines, written the straightforward way, over
// big-endian block words as the frame stores them.
void ReferenceEncipher(uint32_t* v, const uint32_t* k) {
  uint32_t y = v[0], z = v[1], sum = 0, delta = 0x9E3779B9;
  for (int n = 32; n > 0; --n) {
    sum += delta;
    y += ((z << 4) + k[0]) ^ (z + sum) ^ ((z >> 5) + k[1]);
    z += ((y << 4) + k[2]) ^ (y + sum) ^ ((y >> 5) + k[3]);
  }
  v[0] = y;
  v[1] = z;
}

void ReferenceDecipher(uint32_t* v, const uint32_t* k) {
  uint32_t y = v[0], z = v[1], sum = 0xC6EF3720, delta = 0x9E3779B9;
  for (int n = 32; n > 0; --n) {
    z -= ((y << 4) + k[2]) ^ (y + sum) ^ ((y >> 5) + k[3]);
    y -= ((z << 4) + k[0]) ^ (z + sum) ^ ((z >> 5) + k[1]);
    sum -= delta;
  }
  v[0] = y;
  v[1] = z;
}

uint32_t Load(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
void Store(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// The key comes in at run time, as it does for the library: a key known to
// the compiler would let it fold the zero words away.
void ReferenceLoop(std::vector<uint8_t>& data, bool encipher, const uint32_t* k) {
  for (size_t pos = 0; pos + 8 <= data.size(); pos += 8) {
    uint32_t v[2] = {Load(&data[pos]), Load(&data[pos + 4])};
    if (encipher) {
      ReferenceEncipher(v, k);
    } else {
      ReferenceDecipher(v, k);
    }
    Store(&data[pos], v[0]);
    Store(&data[pos + 4], v[1]);
  }
}

std::vector<uint8_t> Sample(size_t n) {
  std::vector<uint8_t> data(n);
  for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
  return data;
}

const uint32_t* RuntimeKey() {
  static tavrix::TeaKey key = tavrix::teaKeyFromText("OSKIRA");
  benchmark::DoNotOptimize(key.data());
  return key.data();
}

void BM_ReferenceEncipher(benchmark::State& state) {
  std::vector<uint8_t> data = Sample(kBufferBytes);
  const uint32_t* k = RuntimeKey();
  for (auto _ : state) {
    ReferenceLoop(data, true, k);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_ReferenceEncipher);

void BM_ReferenceDecipher(benchmark::State& state) {
  std::vector<uint8_t> data = Sample(kBufferBytes);
  const uint32_t* k = RuntimeKey();
  for (auto _ : state) {
    ReferenceLoop(data, false, k);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_ReferenceDecipher);

// The library's block routines over the same buffer as the reference loop.
void BM_TeaBlocks(benchmark::State& state) {
  std::vector<uint8_t> data = Sample(kBufferBytes);
  const tavrix::TeaKey key = tavrix::teaKeyFromText("OSKIRA");
  for (auto _ : state) {
    for (size_t pos = 0; pos + 8 <= data.size(); pos += 8) {
      uint32_t y = Load(&data[pos]);
      uint32_t z = Load(&data[pos + 4]);
      tavrix::teaEncipher(y, z, key);
      Store(&data[pos], y);
      Store(&data[pos + 4], z);
    }
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_TeaBlocks);

// TeaCipher::EncryptByte: the frame built around the data, progress counted.
void BM_TeaEncryptByte(benchmark::State& state) {
  const std::vector<uint8_t> plain = Sample(kBufferBytes);
  tavrix::TeaCipher tea([] { return 0.5; });
  tea.useFiles(tavrix::localFiles());
  tea.Key("OSKIRA");
  std::vector<uint8_t> data;
  for (auto _ : state) {
    data = plain;
    tea.EncryptByte(data);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_TeaEncryptByte);

void BM_TeaDecryptByte(benchmark::State& state) {
  std::vector<uint8_t> frame = Sample(kBufferBytes);
  tavrix::TeaCipher tea([] { return 0.5; });
  tea.useFiles(tavrix::localFiles());
  tea.Key("OSKIRA");
  tea.EncryptByte(frame);
  std::vector<uint8_t> data;
  for (auto _ : state) {
    data = frame;
    if (!tea.DecryptByte(data)) state.SkipWithError("decryption failed");
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_TeaDecryptByte);

long PeakRssKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

void ResetPeakRss() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Decrypts a file of TAVRIX_BENCH_FILE_MIB MiB (1024 by default, 1 in the
// smoke pass).
void BM_TeaDecryptFile(benchmark::State& state) {
  const char* mib = std::getenv("TAVRIX_BENCH_FILE_MIB");
  const uint64_t size = (mib ? std::strtoull(mib, nullptr, 10) : tavrix::bench::BenchSize(1024, 1))
                        << 20;
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("tavrix-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  const std::string plain = (dir / "plain.wts").string();
  const std::string sealed = (dir / "sealed.wte").string();
  const std::string back = (dir / "back.wts").string();
  {
    std::FILE* out = std::fopen(plain.c_str(), "wb");
    const std::vector<uint8_t> chunk = Sample(kBufferBytes);
    for (uint64_t done = 0; done < size; done += chunk.size()) {
      std::fwrite(chunk.data(), 1, chunk.size(), out);
    }
    std::fclose(out);
  }
  tavrix::TeaCipher tea;
  tea.useFiles(tavrix::localFiles());
  if (!tea.EncryptFile(plain, sealed, "OSKIRA")) state.SkipWithError("encryption failed");
  std::filesystem::remove(plain);
  long peak = 0;
  for (auto _ : state) {
    ResetPeakRss();
    if (!tea.DecryptFile(sealed, back, "OSKIRA")) state.SkipWithError("decryption failed");
    peak = std::max(peak, PeakRssKiB());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["file_MiB"] = static_cast<double>(size >> 20);
  state.counters["peak_rss_MiB"] = static_cast<double>(peak) / 1024.0;
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_TeaDecryptFile)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
