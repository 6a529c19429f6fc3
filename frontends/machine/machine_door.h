// The one door to the machine: its file system and the folder where the
// sequencer keeps its data. Only the programs' entry points (the front ends'
// main functions, the benchmarks', the fuzz targets' and the tools') and the
// tests' support code link this library and see this header; everything
// else is handed the file system and the data root it works with, so that a
// run never reaches a file it was not given.
#pragma once

#include <string>

namespace tavrix {

class FileSystem;

// The machine's file system without a data root: names are taken as a
// person wrote them.
FileSystem& localFiles();

// The folder under which the sequencer keeps its data by default:
// $TAVRIX_HOME if set and not empty, else on Windows c:\corvane, elsewhere
// $HOME/.tavrix, else /tmp/tavrix.
std::string defaultDataRoot();

}  // namespace tavrix
