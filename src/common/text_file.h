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

// Reads the whole file into `text`. On failure returns false and, when
// `error` is given, sets it to a message naming the file and the reason.
bool readTextFile(const FileSystem& files, const std::string& path, std::string& text,
                  std::string* error);

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
