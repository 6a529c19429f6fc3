#include "platform/keyed_hash.h"

// clang-format off
#include <windows.h>
#include <bcrypt.h>
// clang-format on

#include <climits>

namespace tavrix::platform {

namespace {

bool succeeded(NTSTATUS status) { return status >= 0; }

}  // namespace

bool hmacSha256(std::string_view key, std::string_view data, Sha256Mac& mac) {
  if (key.size() > ULONG_MAX || data.size() > ULONG_MAX) return false;
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  if (!succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr,
                                             BCRYPT_ALG_HANDLE_HMAC_FLAG))) {
    return false;
  }
  BCRYPT_HASH_HANDLE hash = nullptr;
  bool done = succeeded(BCryptCreateHash(algorithm, &hash, nullptr, 0,
                                         reinterpret_cast<PUCHAR>(const_cast<char*>(key.data())),
                                         static_cast<ULONG>(key.size()), 0));
  if (done) {
    done = succeeded(BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(data.data())),
                                    static_cast<ULONG>(data.size()), 0)) &&
           succeeded(BCryptFinishHash(hash, mac.data(), static_cast<ULONG>(mac.size()), 0));
    BCryptDestroyHash(hash);
  }
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return done;
}

bool secureRandom(uint8_t* bytes, size_t size) {
  return size <= ULONG_MAX && succeeded(BCryptGenRandom(nullptr, bytes, static_cast<ULONG>(size),
                                                        BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

}  // namespace tavrix::platform
