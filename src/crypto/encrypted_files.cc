#include "crypto/encrypted_files.h"

#include "crypto/tea.h"

namespace tavrix {

namespace {

char upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string upperCased(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = upper(c);
  return out;
}

std::string lowerCased(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = lower(c);
  return out;
}

CounterpartName counterpart(std::string_view name, bool fromEncrypted) {
  CounterpartName result;
  if (name.empty()) return result;
  const size_t dot = name.find('.');
  if (dot == std::string_view::npos) {
    result.outcome = CounterpartName::Outcome::kNoExtension;
    return result;
  }
  const std::string_view base = name.substr(0, dot);
  const std::string extension = upperCased(name.substr(dot + 1));
  for (const ExtensionPair& pair : kEncryptedExtensions) {
    const std::string from(fromEncrypted ? pair.encrypted : upperCased(pair.plain));
    if (extension != from) continue;
    const std::string to(fromEncrypted ? pair.plain : lowerCased(pair.encrypted));
    result.outcome = CounterpartName::Outcome::kRecognised;
    result.source = std::string(base) + "." + lowerCased(extension);
    result.destination = std::string(base) + "." + to;
    return result;
  }
  result.outcome = CounterpartName::Outcome::kNotRecognised;
  result.message = std::string(kMsgNotRecognised) + std::string(name);
  return result;
}

// Runs one file through the cipher; `failed` is the message's opening.
bool runFile(FileSystem& files, const std::string& in, const std::string& out, std::string_view key,
             std::string* error, bool decrypt, const std::function<void(int)>& progress) {
  const std::string_view failed = decrypt ? kMsgFailedToDecrypt : kMsgFailedToEncrypt;
  auto report = [&](std::string_view reason) {
    if (error != nullptr) *error = std::string(failed) + in + ": " + std::string(reason);
    return false;
  };
  std::string target = out;
  if (target.empty()) {
    const CounterpartName name = decrypt ? plainCounterpart(in) : encryptedCounterpart(in);
    if (name.outcome != CounterpartName::Outcome::kRecognised) {
      return report(std::string(kMsgNotRecognised) + in);
    }
    target = name.destination;
  }
  TeaCipher tea;
  tea.useFiles(files);
  tea.Key(key);
  tea.Progress = progress;
  const bool ok = decrypt ? tea.DecryptFile(in, target) : tea.EncryptFile(in, target);
  if (ok) return true;
  if (tea.LastError().number == kTeaErrSizeDescriptor) {
    return report(tea.LastError().description + " (wrong key or damaged file)");
  }
  return report(tea.LastError().description);
}

}  // namespace

std::string overwriteQuestion(std::string_view destination) {
  return "File " + std::string(destination) + " already exists - overwrite";
}

CounterpartName plainCounterpart(std::string_view encryptedName) {
  return counterpart(encryptedName, true);
}

CounterpartName encryptedCounterpart(std::string_view plainName) {
  return counterpart(plainName, false);
}

bool decryptFile(FileSystem& files, const std::string& in, const std::string& out,
                 std::string_view key, std::string* error,
                 const std::function<void(int)>& progress) {
  return runFile(files, in, out, key, error, true, progress);
}

bool encryptFile(FileSystem& files, const std::string& in, const std::string& out,
                 std::string_view key, std::string* error,
                 const std::function<void(int)>& progress) {
  return runFile(files, in, out, key, error, false, progress);
}

}  // namespace tavrix
