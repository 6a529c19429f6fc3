// `tavrix-cli decrypt` and `tavrix-cli encrypt`: the decryption window as a
// command, and its reverse. The plain counterpart of an encrypted file goes
// next to it (PUMP.WTE gives PUMP.wts); an existing destination is replaced
// only after the operator answers Yes to the overwrite question (kind
// OVERWRITE), or with --yes, and only by a complete file.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "common/host.h"

namespace CLI {
class App;
}

namespace tavrix {

class FileSystem;

// Exit statuses of decrypt and encrypt.
constexpr int kCryptDone = 0;
constexpr int kCryptFailed = 1;    // "Failed to decrypt ..." / "Failed to encrypt ..."
constexpr int kCryptUsage = 2;     // bad usage or an extension that is not recognised
constexpr int kCryptDeclined = 3;  // the overwrite question was answered No (or not at all)

inline constexpr char kOverwriteKind[] = "OVERWRITE";

struct CryptOptions {
  std::string file;
  bool yes = false;                    // replace an existing destination without asking
  std::optional<std::string> answers;  // scripted answers for the overwrite question
  std::optional<std::string> key;      // encrypt only; the utility key when not given
};

// Decrypts FILE with the utility key into its plain counterpart.
int DecryptCommand(FileSystem& files, const CryptOptions& options, std::FILE* in, std::FILE* out,
                   std::FILE* err);
// Encrypts FILE (.wts, .txt, .xml, .wl) into its encrypted counterpart.
int EncryptCommand(FileSystem& files, const CryptOptions& options, std::FILE* in, std::FILE* out,
                   std::FILE* err);

// Adds both subcommands to the command line; run() runs the one parsed.
class CryptCommands {
 public:
  explicit CryptCommands(CLI::App& app);
  // The exit status of decrypt or encrypt when one of them was parsed.
  std::optional<int> run(const Host& host, std::FILE* in, std::FILE* out, std::FILE* err) const;

 private:
  CLI::App* decrypt_;
  CLI::App* encrypt_;
  CryptOptions decryptOptions_;
  CryptOptions encryptOptions_;
};

}  // namespace tavrix
