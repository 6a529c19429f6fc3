// Folder locks of the local file system against a holder outside its own
// bookkeeping: what another process holding the folder looks like.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "common/file_system.h"
#include "platform/files.h"

namespace tavrix {
namespace {

TEST(FolderLock, AnotherHolderIsWaitedForThenReportedAndThePathIsFreeAfterwards) {
  ScratchFolder scratch;
  const std::string path = scratch.path() + "/summary.txt";

  // The lock as another process takes it: its own handle on the folder.
  platform::FileHandle other = platform::kNoFile;
  ASSERT_EQ(platform::openFolderLock(scratch.path(), other), 0);
  ASSERT_EQ(platform::tryLockFile(other), 0);

  LocalFileSystem files(scratch.path());
  files.setLockWait(0);
  std::string error;
  EXPECT_EQ(files.lock(path, &error), nullptr);
  EXPECT_EQ(error, "Cannot lock \"" + path + "\": another program kept it locked for 0 s");

  platform::closeFile(other);
  auto held = files.lock(path, &error);
  ASSERT_NE(held, nullptr) << error;
  // The same thread may take it again (a writer that locks per file); the
  // folder stays locked against others until both are released.
  auto again = files.lock(scratch.path() + "/details.txt", &error);
  ASSERT_NE(again, nullptr) << error;
  ASSERT_EQ(platform::openFolderLock(scratch.path(), other), 0);
  EXPECT_EQ(platform::tryLockFile(other), EWOULDBLOCK);
  held.reset();
  EXPECT_EQ(platform::tryLockFile(other), EWOULDBLOCK);
  again.reset();
  EXPECT_EQ(platform::tryLockFile(other), 0);
  platform::closeFile(other);

  // Work on another stack of the same thread (a test socket taking its
  // turn) is another holder: it does not take the lock held on the thread's
  // own stack, and takes it again once that is released.
  held = files.lock(path, &error);
  ASSERT_NE(held, nullptr) << error;
  int otherStack = 0;
  SetFolderLockStack(&otherStack);
  files.setLockWait(0);
  EXPECT_EQ(files.lock(path, &error), nullptr);
  SetFolderLockStack(nullptr);
  held.reset();
  SetFolderLockStack(&otherStack);
  EXPECT_NE(files.lock(path, &error), nullptr) << error;
  SetFolderLockStack(nullptr);

  // A folder that is not there is a clear error, not a wait.
  files.setLockWait(30000);
  EXPECT_EQ(files.lock(scratch.path() + "/none/summary.txt", &error), nullptr);
  EXPECT_NE(error.find("Cannot lock"), std::string::npos) << error;
}

}  // namespace
}  // namespace tavrix
