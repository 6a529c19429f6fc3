#include "platform/keyed_hash.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <climits>

namespace tavrix::platform {

bool hmacSha256(std::string_view key, std::string_view data, Sha256Mac& mac) {
  if (key.size() > INT_MAX) return false;
  unsigned int length = 0;
  const unsigned char* done =
      HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac.data(), &length);
  return done != nullptr && length == mac.size();
}

bool secureRandom(uint8_t* bytes, size_t size) {
  return size <= INT_MAX && RAND_bytes(bytes, static_cast<int>(size)) == 1;
}

}  // namespace tavrix::platform
