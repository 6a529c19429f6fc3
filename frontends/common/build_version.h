// The version of the program and the commit it was built from, as
// `tavrix-cli --version` and the window's About box show them. The commit is
// "unknown" for a build outside a git checkout and ends in "+changes" when
// the checkout had uncommitted changes.
#pragma once

namespace tavrix {

const char* BuildVersion();
const char* BuildCommit();

}  // namespace tavrix
