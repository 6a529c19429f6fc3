// File-name wildcards as a sequence writes them: `*` any run of characters,
// `?` one character, `[abc]`, `[a-z]` and `[!abc]` one of (or none of) a set.
#pragma once

#include <string_view>

namespace tavrix::platform {

// Whether `name` matches `pattern`. Letters compare without regard to case
// where the system's file names do (Windows).
bool matchesWildcard(std::string_view pattern, std::string_view name);

// Whether the system's file names ignore the case of letters.
bool fileNamesIgnoreCase();

}  // namespace tavrix::platform
