// Encrypted file kinds and the decryption of an encrypted file into its plain
// counterpart next to it: the work behind the decryption window and behind a
// command line's decrypt and encrypt.
//
// An encrypted extension is the plain one with its last letter replaced by
// "e" (the two-letter logger extension gets an "e" appended). The file's
// content is one TEA frame (crypto/tea.h).
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>

#include "common/file_system.h"

namespace tavrix {

// The key the decryption utility uses.
inline constexpr std::string_view kDefaultUtilityKey = "OSKIRA";

struct ExtensionPair {
  std::string_view encrypted;  // upper case, without the "."
  std::string_view plain;      // lower case, without the "."
};
// In the order the names are looked up.
inline constexpr std::array<ExtensionPair, 4> kEncryptedExtensions{{
    {"WLE", "wl"},
    {"WTE", "wts"},
    {"TXE", "txt"},
    {"XME", "xml"},
}};

// Texts of the decryption window.
inline constexpr std::string_view kBrowseTitle = "Select Encrypted File";
inline constexpr std::string_view kBrowseDefaultExtension = "wte";
inline constexpr std::string_view kBrowseInitialName = "*.??e";
inline constexpr std::string_view kBrowseFilter =
    "Encrypted files (*.wte, *.txe, *.xme, *.wle)|*.wte, *.txe, *.xme, *.wle";
inline constexpr std::string_view kMsgNotRecognised =
    "File extension not recognised by encrypt software: ";
inline constexpr std::string_view kMsgFailedToDecrypt = "Failed to decrypt ";
inline constexpr std::string_view kMsgFailedToEncrypt = "Failed to encrypt ";
inline constexpr std::string_view kOverwriteTitle = "File encryption";

// "File <destination> already exists - overwrite" (asked with Yes and No, No
// the default, before an existing destination is replaced).
std::string overwriteQuestion(std::string_view destination);

// What a file name says about its counterpart. The name splits at its first
// "." into a base and an extension; a folder name with a dot therefore gives
// a wrong split and an unrecognised extension, which is intended.
struct CounterpartName {
  enum class Outcome {
    kEmpty,          // no name: nothing to do (decrypting is not offered)
    kNoExtension,    // no ".": nothing changes
    kNotRecognised,  // `message` is the text to show
    kRecognised,     // `source` and `destination` are set
  };
  Outcome outcome = Outcome::kEmpty;
  std::string source;       // the base and the extension in lower case
  std::string destination;  // the base and the counterpart's extension
  std::string message;
};

// For an encrypted name (".wte", ".txe", ".xme", ".wle", in any case), its
// plain counterpart: c:\seqs\PUMP.WTE gives source c:\seqs\PUMP.wte and
// destination c:\seqs\PUMP.wts.
CounterpartName plainCounterpart(std::string_view encryptedName);
// The reverse, for a plain name (".wts", ".txt", ".xml", ".wl").
CounterpartName encryptedCounterpart(std::string_view plainName);

// Decrypts the file `in` with `key` into `out`, through `files`; an empty `out` means the
// plain counterpart of `in`. An existing `out` is replaced, and only by a
// complete file: on any failure `out` is as it was and no partial file is
// left. On failure returns false and, when `error` is not null, a message
// that starts with "Failed to decrypt " and the input path.
// `progress`, when given, receives whole percents as TeaCipher's Progress does.
bool decryptFile(FileSystem& files, const std::string& in, const std::string& out,
                 std::string_view key, std::string* error,
                 const std::function<void(int)>& progress = {});

// Encrypts the plain file `in` with `key` into `out` (empty: the encrypted
// counterpart of `in`), in the same way. Messages start with
// "Failed to encrypt ".
bool encryptFile(FileSystem& files, const std::string& in, const std::string& out,
                 std::string_view key, std::string* error,
                 const std::function<void(int)>& progress = {});

}  // namespace tavrix
