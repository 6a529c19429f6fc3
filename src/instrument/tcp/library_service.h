// A link library (the rig PC's own libraries, or any other backend) served
// over the rig protocol, so that a program that cannot load the library
// itself reaches it through a rig server: a 64-bit window and the 32-bit
// vendor libraries, or another computer. The rig server hands every request
// of a client that has passed the key check to answer().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "instrument/link/link_library.h"

namespace tavrix {

class FileSystem;

class LibraryService {
 public:
  // `files`: where the setups that clients send are written for the library.
  LibraryService(std::unique_ptr<LinkLibrary> library, FileSystem& files);
  ~LibraryService();
  LibraryService(const LibraryService&) = delete;
  LibraryService& operator=(const LibraryService&) = delete;

  // Opens the library's interface. False with a message.
  bool open(std::string* error);

  struct Answer {
    int32_t code = 0;
    std::optional<std::string> text;
  };
  // Answers one request: its verb and what follows the verb. Requests carry
  // the client's run time, which a real library does not take: it keeps its
  // own time. nullopt for a request it does not know.
  std::optional<Answer> answer(std::string_view verb, std::string_view rest);

 private:
  Answer loadSetup(std::string_view clientPath, std::string_view text);

  std::unique_ptr<LinkLibrary> library_;
  FileSystem& files_;
  int16_t handle_ = 0;
  bool open_ = false;
  std::string setupName_;
  // The client sends the text of its setup file; the library loads setups
  // from files, so the text is written here first (made at the first load,
  // removed with the service).
  std::string setupFolder_;
};

}  // namespace tavrix
