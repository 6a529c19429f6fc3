// The cryptographic primitives of the system's own maintained library: a
// keyed hash (HMAC-SHA256) and random bytes fit for nonces.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tavrix::platform {

using Sha256Mac = std::array<uint8_t, 32>;

// HMAC-SHA256 of `data` under `key`. False when the library fails.
bool hmacSha256(std::string_view key, std::string_view data, Sha256Mac& mac);

// Fills `bytes` from the system's cryptographic random generator. False when
// it fails.
bool secureRandom(uint8_t* bytes, size_t size);

}  // namespace tavrix::platform
