// The few POSIX helpers the tests use to make scratch folders, set the
// environment and join threads with a pipe, for the Windows build of the
// tests (included into every test source there by the build). The programs
// themselves never use them.
#pragma once

#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

// Replaces the trailing XXXXXX of `pattern` and creates that folder.
inline char* mkdtemp(char* pattern) {
  const size_t size = std::strlen(pattern) + 1;
  char* copy = static_cast<char*>(std::malloc(size));
  if (copy == nullptr) return nullptr;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::memcpy(copy, pattern, size);
    if (_mktemp_s(copy, size) != 0) break;
    if (_mkdir(copy) == 0) {
      std::memcpy(pattern, copy, size);
      std::free(copy);
      return pattern;
    }
    if (errno != EEXIST) break;
  }
  std::free(copy);
  return nullptr;
}

inline int setenv(const char* name, const char* value, int overwrite) {
  if (!overwrite && std::getenv(name) != nullptr) return 0;
  return _putenv_s(name, value) == 0 ? 0 : -1;
}

// A pipe between two threads of a test (binary, as POSIX pipes are).
inline int pipe(int fds[2]) { return _pipe(fds, 64 * 1024, _O_BINARY); }

inline int unsetenv(const char* name) { return _putenv_s(name, "") == 0 ? 0 : -1; }
