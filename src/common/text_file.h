// Reading and writing whole text files. The files the sequencer writes end
// their lines in CR LF, and a write never leaves a partial file behind: a
// reader sees either the old contents or the new ones.
#pragma once

#include <string>
#include <vector>

namespace tavrix {

// The line end of every file the sequencer writes.
inline constexpr char kLineEnd[] = "\r\n";

// Every text file the program reads is bounded: at most kMaxTextFileBytes
// in all and kMaxTextLineBytes between two line ends (CR or LF). A file
// beyond either bound, or one that is not a regular file (a folder, a FIFO,
// a device such as /dev/zero), is refused before it is read in full, so an
// endless or huge input cannot exhaust memory or block the reader.
inline constexpr size_t kMaxTextFileBytes = size_t{64} << 20;  // 64 MiB
inline constexpr size_t kMaxTextLineBytes = size_t{1} << 20;   // 1 MiB

// Reads the whole file into `text` within the bounds above. On failure
// returns false and, when `error` is given, sets it to a message naming the
// file and the reason.
bool readTextFile(const std::string& path, std::string& text, std::string* error);

// The same with bounds of the caller's own (tests use small ones).
bool readTextFile(const std::string& path, std::string& text, std::string* error, size_t maxBytes,
                  size_t maxLineBytes);

// The reason part of a read error ("it is a folder", "No such file or
// directory"), for messages that name the file in words of their own.
std::string readFailureReason(const std::string& error);

// Replaces the file by `lines`, each followed by CR LF. The text goes to a
// temporary file in the same folder, is flushed to the disk and then renamed
// over `path`, so a failure leaves the old file (or no file) untouched. A new
// file gets the permissions the process's umask allows; a replaced file
// keeps its permissions.
bool writeTextFileAtomically(const std::string& path, const std::vector<std::string>& lines,
                             std::string* error);

// Appends `lines`, each followed by CR LF, creating the file if needed. The
// lines go out in one piece: if the write fails part-way the file is cut
// back to its former length. While the lines are being written a marker
// ".<name>.appending" beside the file holds that length; if the process is
// killed part-way, the next append to the file finds the marker and first
// cuts the file back, so only whole appends remain.
bool appendLines(const std::string& path, const std::vector<std::string>& lines,
                 std::string* error);

}  // namespace tavrix
