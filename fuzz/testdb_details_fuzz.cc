// A test definition's details file of arbitrary bytes (the other two are
// well-formed) through the definition reader.

#include "testdb_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavrix::fuzz::ReadDefinitionWith(tavrix::fuzz::DefinitionFile::kDetails, data, size);
  return 0;
}
