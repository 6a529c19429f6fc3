// Reading and writing whole text files through the file system. The files
// the sequencer writes end their lines in CR LF, and a write never leaves a
// partial file behind: a reader sees either the old contents or the new ones.
#pragma once

#include <string>
#include <vector>

#include "common/file_system.h"

namespace tavrix {

// The line end of every file the sequencer writes.
inline constexpr char kLineEnd[] = "\r\n";

// `lines`, each followed by CR LF.
std::string joinLines(const std::vector<std::string>& lines);

// Every text file the program reads is bounded: at most kMaxTextFileBytes
// in all and kMaxTextLineBytes between two line ends (CR or LF). A file
// beyond either bound, or one that is not a regular file (a folder, a FIFO,
// a device such as /dev/zero), is refused, so an endless or huge input cannot
// exhaust memory or block the reader.
inline constexpr size_t kMaxTextFileBytes = size_t{64} << 20;  // 64 MiB
inline constexpr size_t kMaxTextLineBytes = size_t{1} << 20;   // 1 MiB

// Reads the whole file into `text` within the bounds above. On failure
// returns false and, when `error` is given, sets it to a message naming the
// file and the reason.
bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error);

// The same with bounds of the caller's own (tests use small ones).
bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error, size_t maxBytes, size_t maxLineBytes);

// The reason part of a read error ("it is a folder", "No such file or
// directory"), for messages that name the file in words of their own.
std::string readFailureReason(const std::string& error);

// Replaces the file by `lines`, each followed by CR LF, in one atomic
// rewrite (see FileSystem::rewrite): a failure leaves the old file (or no
// file) untouched.
bool writeTextFileAtomically(FileSystem& files, const std::string& path,
                             const std::vector<std::string>& lines, std::string* error);

// Appends `lines`, each followed by CR LF, creating the file if needed, in
// one piece (see FileSystem::append).
bool appendLines(FileSystem& files, const std::string& path, const std::vector<std::string>& lines,
                 std::string* error);

}  // namespace tavrix
