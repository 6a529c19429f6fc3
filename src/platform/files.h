// Files by handle, the way the operating system offers them. Paths are UTF-8
// everywhere; on Windows they become UTF-16 names, so any file name the
// system allows can be opened. Every function returns 0 or an errno-style
// error number that errorText() turns into words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tavrix::platform {

using FileHandle = intptr_t;
inline constexpr FileHandle kNoFile = -1;

enum class OpenMode {
  kRead,              // an existing file, for reading (a pipe without a writer
                      // does not hold up the open)
  kCreateNew,         // a new file for writing; fails with EEXIST if it exists
  kCreateOrTruncate,  // created or emptied, for writing
  kAppend,            // created if needed; every write goes to the end
  kReadWrite,         // an existing or new file, for reading and writing in place
};

int openFile(const std::string& path, OpenMode mode, FileHandle& file);
void closeFile(FileHandle file);
// Reads up to `size` bytes; `got` is 0 at the end of the file.
int readSome(FileHandle file, void* bytes, size_t size, size_t& got);
// Writes all of `bytes`, going on after short writes.
int writeAll(FileHandle file, const void* bytes, size_t size);
// Flushes the file's data to the disk.
int syncFile(FileHandle file);
int truncateFile(FileHandle file, uint64_t size);
// Moves the read position of `file` to `offset` bytes from its start.
int seekFile(FileHandle file, uint64_t offset);

enum class PathKind { kMissing, kFile, kFolder, kOther };

struct PathInfo {
  PathKind kind = PathKind::kMissing;
  uint64_t size = 0;
  // Last write time in nanoseconds since 1970 (to the resolution the file
  // system keeps: 100 ns on NTFS).
  int64_t modifiedNs = 0;
  // Identity: the volume and the file's number on it.
  uint64_t device = 0;
  uint64_t inode = 0;
  // Permission bits (POSIX); on Windows only the read-only bit counts.
  unsigned mode = 0;
};

// A missing path is not an error: kind is kMissing and the result is 0.
int pathInfo(const std::string& path, PathInfo& info);
int fileInfo(FileHandle file, PathInfo& info);
// Gives `file` the permissions `info` describes.
void copyPermissions(const PathInfo& info, FileHandle file);

// Renames `from` to `to`, replacing `to` if it exists, in one step.
int replaceFile(const std::string& from, const std::string& to);
// Removes a file; a missing file is ENOENT.
int removeFile(const std::string& path);
// Makes renames and new names in `folder` durable where the system allows.
void syncFolder(const std::string& folder);
// Removes an empty folder.
int removeFolder(const std::string& folder);
// The names in `folder`, "." and ".." left out.
int listFolder(const std::string& folder, std::vector<std::string>& names);
int makeFolder(const std::string& folder);

// An exclusive, advisory lock on an open file, released when it is closed.
// EWOULDBLOCK when another holder has it.
int tryLockFile(FileHandle file);
// A handle on which tryLockFile() locks `folder` against other processes:
// the folder itself where the system can lock one (POSIX), otherwise a
// hidden lock file kept in it (".tavrix-lock" on Windows).
int openFolderLock(const std::string& folder, FileHandle& file);
// The name of that lock file; empty where folders lock themselves.
const char* folderLockFileName();

// Like pathInfo(), but a symbolic link (or other reparse point) is reported
// as kOther rather than followed.
int entryInfo(const std::string& path, PathInfo& info);

// The characters that separate folders in a path ("/", and on Windows also
// "\\").
const char* pathSeparators();
std::string currentFolder();
int changeFolder(const std::string& folder);
// The system's folder for temporary files: TMPDIR (else /tmp) on POSIX
// systems, the user's temporary folder (TMP, TEMP) on Windows. No separator
// at the end.
std::string tempFolder();
// Creates a new folder named `prefix` followed by six random characters;
// `path` receives its name.
int makeUniqueFolder(const std::string& prefix, std::string& path);
// Whether a process with this id is running (unsure counts as running).
bool processRunning(unsigned long pid);

// `name` (a file name, no folder) with each character the system does not
// allow in names replaced by '_': on Windows the control characters (a TAB)
// and < > : " | ? *; elsewhere `name` as it is.
std::string allowedFileName(std::string name);

std::string errorText(int error);
// Whether paths may start with a drive ("c:") naming a real drive.
bool hasDriveLetters();
// The id of this process, for unique temporary names.
unsigned long processId();

}  // namespace tavrix::platform
