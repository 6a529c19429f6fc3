// Reads results files that stations wrote before the results store existed
// (details files, text or XML layout) into store records, so that `tavrix-cli
// results import` can load a plant's history. A file is taken whole or not
// at all: one line that cannot be read rejects the file, with its name and
// line number.
#pragma once

#include <string>
#include <vector>

#include "resultsdb/stored_uut.h"

namespace tavrix {

class FileSystem;

struct ImportProblem {
  std::string file;
  int line = 0;
  std::string reason;
};

// The records of one details file: uuts[first, first + count).
struct ImportedFile {
  std::string name;
  size_t first = 0;
  size_t count = 0;
};

struct ImportScan {
  std::vector<StoredUut> uuts;  // in the order of the files' names, then within a file
  std::vector<ImportedFile> files;
  int detailsFiles = 0;  // read in full
  int summaryFiles = 0;  // passed over: the details files hold all they say
  std::vector<ImportProblem> problems;
};

// Parses the text of one details file called `name` (a bare file name; its
// "_hhmmss" part gives the time of day). False with the line and reason of
// the first fault; `out` is then left as it was. A record's key comes from
// the file's content, so the same file loads the same records wherever it is.
bool ParseDetailsFile(const std::string& name, const std::string& text, const std::string& station,
                      std::vector<StoredUut>& out, ImportProblem& problem);

// Every .txt and .xml file in `folder` and its subfolders, by name; a
// folder or file reached again through a link is read once, and a file is
// read whole only once its first bytes show it is a results file (within
// the bounds of a text file).
ImportScan ScanResultsFolder(const FileSystem& files, const std::string& folder,
                             const std::string& station);

}  // namespace tavrix
