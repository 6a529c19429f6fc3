#include <exception>
#include <new>

#include "machine_door.h"
#include "run_command.h"

// Nothing escapes: an exception that reaches here (memory exhausted, a
// fault of the program) is reported in words and ends the program with the
// status of a run that a sequence error ended.
int main(int argc, char** argv) {
  try {
    std::vector<std::string> args(argv, argv + argc);
    // The data root is decided here, once, for every command.
    const tavrix::Host host{tavrix::localFiles(), tavrix::defaultDataRoot()};
    return tavrix::TavrixCliMain(host, args, stdin, stdout, stderr);
  } catch (const std::bad_alloc&) {
    std::fputs("tavrix-cli: out of memory\n", stderr);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tavrix-cli: internal error: %s\n", e.what());
  } catch (...) {
    std::fputs("tavrix-cli: internal error\n", stderr);
  }
  return tavrix::kExitSequenceError;
}
