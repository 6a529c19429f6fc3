// The shared key of a rig server and its links, and the handshake in which
// each side proves that it knows the key without sending it.
//
// The link sends "KEY <its nonce>"; the server answers with its own nonce
// and its proof, HMAC-SHA256 over both nonces; the link checks that proof
// and sends "PROOF <its own>", made over the nonces in the other order and
// with another label. Both nonces are fresh random numbers for every
// connection, so a recorded handshake proves nothing the next time. The
// wire form is in docs/simulated-rig.md.
#pragma once

#include <string>
#include <string_view>

namespace tavrix {

class FileSystem;

// A key file holds the key as hex digits: at least kMinKeyBytes bytes (32
// digits) and at most kMaxKeyBytes. Blanks and line ends between the digits
// are ignored, and so are lines that begin with "#".
inline constexpr size_t kMinKeyBytes = 16;
inline constexpr size_t kMaxKeyBytes = 128;
inline constexpr size_t kNewKeyBytes = 32;

// Reads the key of `path` in `files` into `key` (the raw bytes). False with a message
// naming the file when it cannot be read, is not a key, or (on POSIX) when
// users other than its owner may read it.
bool LoadLinkKey(const FileSystem& files, const std::string& path, std::string& key,
                 std::string* error);
// Parses the text of a key file.
bool ParseLinkKey(std::string_view text, std::string& key, std::string* why);

// Writes a new random key to `path`, readable only by its owner; an existing
// file is not replaced. False with a message.
bool WriteNewLinkKey(const std::string& path, std::string* error);

// A fresh random nonce as hex digits (empty when the system's generator
// fails).
std::string NewNonce();
bool IsNonce(std::string_view text);

// The proofs of the two sides, as hex digits.
std::string ServerProof(std::string_view key, std::string_view linkNonce,
                        std::string_view serverNonce);
std::string LinkProof(std::string_view key, std::string_view serverNonce,
                      std::string_view linkNonce);

// Compares two proofs in time that does not depend on where they differ.
bool SameProof(std::string_view a, std::string_view b);

}  // namespace tavrix
