#include "platform/file_size_limit.h"

namespace tavrix::platform {

// Windows has no per-process file size limit.
struct FileSizeLimit::State {};

FileSizeLimit::FileSizeLimit(uint64_t /*bytes*/) {}

FileSizeLimit::~FileSizeLimit() = default;

}  // namespace tavrix::platform
