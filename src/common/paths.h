// Paths written on Windows (sequence files, test definitions, index files
// hold names such as "c:\corvane\data\RUN???.DAT") made usable here: both
// '\' and '/' separate folders, and a drive prefix maps to a local folder.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace tavrix {

// The drive map. By default drive X is the folder "<root>/x" (the letter in
// lower case); setDrive points a drive elsewhere.
class PathMap {
 public:
  explicit PathMap(std::string root) : root_(std::move(root)) {}

  // Maps `letter` (either case) to `folder`.
  void setDrive(char letter, std::string folder);
  // The local folder of a drive: its mapped folder, else the drive itself
  // where the system has drives (Windows), else a folder of that letter
  // under the root.
  std::string driveFolder(char letter) const;

  // A local path for `path`: separators become '/', and a leading drive
  // ("c:\x", "C:/x") is replaced by its folder. A path relative to a drive's
  // current folder ("c:x") is taken relative to the drive's folder. Other
  // paths, relative or not, keep their form. The case of names is kept.
  std::string toLocal(std::string_view path) const;

 private:
  std::string root_;
  std::map<char, std::string> drives_;
};

// Whether a local path starts from a root rather than from the current
// folder: "/x", and where drives are real (Windows) also "c:/x", "c:\\x" and
// "\\x".
bool isAbsolutePath(std::string_view path);

// `name` inside `dir`, with one '/' between them. An empty `dir` gives `name`.
std::string join(std::string_view dir, std::string_view name);

}  // namespace tavrix
