// The three test definition files, one of them of arbitrary bytes and the
// other two the example's, read as a test definition is read for a UUT.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "fuzz_support.h"
#include "machine_door.h"
#include "testdb/definition_files.h"

namespace tavrix::fuzz {

enum class DefinitionFile { kDetails, kFieldNames, kStageChecks };

inline void ReadDefinitionWith(DefinitionFile which, const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    std::string d = ScratchFolder() + "/testdb";
    mkdir(d.c_str(), 0700);
    return d;
  }();
  const std::string details = dir + "/details.txt";
  const std::string fields = dir + "/fields.txt";
  const std::string stages = dir + "/stages.txt";
  std::ofstream(details, std::ios::binary | std::ios::trunc)
      << "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\tNotes\tField names file\tStage checks "
         "file\t"
         "Results directory\r\nPump test\tfirst\t1\t\t"
      << fields << "\t" << stages << "\tresults\r\n";
  std::ofstream(fields, std::ios::binary | std::ios::trunc)
      << "TEST SEQUENCE - FIELD NAMES\r\nField Name\tRequired\tHas hint\tLabel\tHint\r\n"
         "Serial\tTRUE\tTRUE\tSerial Number\tas on the plate\r\nDate\tTRUE\tFALSE\tTest Date\t\r\n";
  std::ofstream(stages, std::ios::binary | std::ios::trunc)
      << "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\tCheck Type\tChannel\tSecond Channel\tLower\t"
         "Upper\tName\tUnits\tMessage\r\n1\tMANUAL\t\t\t\t\tFitted\t\tIs it fitted?\r\n"
         "2\tMEASURE\tPRESS\t\t0.9\t1.2\tInlet pressure\tbar\tAt rest\r\n";
  const std::string& target = which == DefinitionFile::kDetails      ? details
                              : which == DefinitionFile::kFieldNames ? fields
                                                                     : stages;
  std::ofstream(target, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  PathMap paths(dir);
  paths.setDrive('c', dir);
  DefinitionReadOptions options;
  options.paths = &paths;
  options.files = &tavrix::localFiles();
  options.currentDirectory = "c:\\work";
  options.showMessage = [](const std::string&) {};
  TestDefinition definition;
  ReadTestDefinitionFiles(details, options, definition);
}

}  // namespace tavrix::fuzz
