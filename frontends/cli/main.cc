#include "run_command.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  return tavrix::TavrixCliMain(args, stdin, stdout, stderr);
}
