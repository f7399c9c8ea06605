#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "gtest/gtest.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::FileOperations;
using Lum::Core::FileUtil;
using LumTest::ReadFile;
using LumTest::TempDir;
using LumTest::WriteFile;

enum class Op { kWrite, kFsync, kDirFsync, kRename, kUnlink, kRead };

// Real POSIX calls, except that the Nth call of one kind (and, when sticky,
// every later one) fails with a chosen errno.
class FaultyOperations : public FileOperations {
 public:
  void fail(Op op, int nth, int error, bool sticky = false) {
    op_ = op, nth_ = nth, error_ = error, sticky_ = sticky;
  }
  int open(const char* path, int flags, mode_t mode) override {
    int fd = FileOperations::open(path, flags, mode);
    if (fd >= 0 && (flags & O_DIRECTORY)) directories_.insert(fd);
    return fd;
  }
  ssize_t read(int fd, void* b, size_t n) override {
    return hit(Op::kRead) ? -1 : FileOperations::read(fd, b, n);
  }
  ssize_t write(int fd, const void* b, size_t n) override {
    return hit(Op::kWrite) ? -1 : FileOperations::write(fd, b, n);
  }
  int fsync(int fd) override {
    return hit(directories_.count(fd) ? Op::kDirFsync : Op::kFsync) ? -1
                                                                    : FileOperations::fsync(fd);
  }
  int close(int fd) override {
    directories_.erase(fd);
    return FileOperations::close(fd);
  }
  int rename(const char* from, const char* to) override {
    return hit(Op::kRename) ? -1 : FileOperations::rename(from, to);
  }
  int unlink(const char* path) override {
    return hit(Op::kUnlink) ? -1 : FileOperations::unlink(path);
  }

 private:
  bool hit(Op op) {
    int count = ++counts_[op];
    if (op != op_ || (count != nth_ && !(sticky_ && count > nth_))) return false;
    errno = error_;
    return true;
  }
  std::map<Op, int> counts_;
  std::set<int> directories_;
  Op op_ = Op::kWrite;
  int nth_ = 0, error_ = 0;
  bool sticky_ = false;
};

// Installs the faulty operations for one scope.
struct Injected {
  FaultyOperations ops;
  Injected() { FileUtil::SetOperations(&ops); }
  ~Injected() { FileUtil::SetOperations(nullptr); }
};

std::set<std::string> Listing(const TempDir& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

TEST(FileUtil, RoundTripsAnyContentAndKeepsTheFileReadableAsIs) {
  TempDir dir;
  std::string binary("a\0b\xff\n", 5);
  std::string large(1 << 20, 'x');
  large[12345] = 'y';
  for (const std::string& directory : {dir.path(), dir.path() + "/"}) {
    for (const std::string& content : {std::string(), std::string("{\"a\":1}"), binary, large}) {
      ASSERT_TRUE(FileUtil::Store(directory, "core", content));
      EXPECT_EQ(FileUtil::Load(directory, "core"), content);
      EXPECT_EQ(ReadFile(dir.file("core")), content);
    }
  }
  ASSERT_TRUE(FileUtil::Store(dir.path(), "daTime", "other"));
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), large);
  EXPECT_EQ(FileUtil::Load(dir.path(), "daTime"), "other");
}

TEST(FileUtil, MissingNamesDirectoriesAndInvalidNames) {
  TempDir dir;
  EXPECT_EQ(FileUtil::Load(dir.path(), "absent"), "");
  EXPECT_EQ(FileUtil::Load(dir.file("nodir"), "core"), "");
  EXPECT_FALSE(FileUtil::Store(dir.file("nodir"), "core", "x"));
  EXPECT_TRUE(FileUtil::Drop(dir.file("nodir"), "core"));
  for (const char* name : {"", ".", "..", "sub/core"}) {
    EXPECT_FALSE(FileUtil::Store(dir.path(), name, "x")) << name;
    EXPECT_EQ(FileUtil::Load(dir.path(), name), "") << name;
    EXPECT_FALSE(FileUtil::Drop(dir.path(), name)) << name;
  }
  EXPECT_TRUE(Listing(dir).empty());
}

TEST(FileUtil, FileWithoutChecksumLoadsAsIsAndBecomesTheFallback) {
  TempDir dir;
  WriteFile(dir.file("core"), "hand written");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "hand written");
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "stored"));
  WriteFile(dir.file("core"), "stored, then damaged");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "hand written");
}

// Damage done to the newest content after "old" and then "new" were stored.
TEST(FileUtil, DamagedNewestFallsBackToThePreviousGoodVersion) {
  struct Case {
    const char* what;
    void (*damage)(const TempDir&);
    std::string expected;
  };
  const std::string newest = "{\"gidToken\":\"new\"}";
  const Case cases[] = {
      {"truncated", [](const TempDir& d) { WriteFile(d.file("core"), "{\"gidTok"); }, "old"},
      {"emptied", [](const TempDir& d) { WriteFile(d.file("core"), ""); }, "old"},
      {"one byte changed",
       [](const TempDir& d) { WriteFile(d.file("core"), "{\"gidToken\":\"nex\"}"); }, "old"},
      {"extended", [](const TempDir& d) { WriteFile(d.file("core"), "{\"gidToken\":\"new\"}\n"); },
       "old"},
      {"missing", [](const TempDir& d) { std::filesystem::remove(d.file("core")); }, "old"},
      {"sidecar garbled", [](const TempDir& d) { WriteFile(d.file("core.sum"), "lumfile 1\nzz"); },
       newest},
      {"sidecar missing", [](const TempDir& d) { std::filesystem::remove(d.file("core.sum")); },
       newest},
  };
  for (const Case& c : cases) {
    TempDir dir;
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "old"));
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", newest));
    c.damage(dir);
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), c.expected) << c.what;
  }
}

TEST(FileUtil, DamagedCurrentIsNeverKeptAsTheFallback) {
  TempDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "A"));
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "B"));
  WriteFile(dir.file("core"), "B damaged");
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "C"));
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "C");
  WriteFile(dir.file("core"), "C damaged");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "A");
  WriteFile(dir.file("core.prev"), "A damaged");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "");
}

TEST(FileUtil, UnreadableNewestFallsBackToThePrevious) {
  TempDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "old"));
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "new"));
  Injected injected;
  injected.ops.fail(Op::kRead, 3, EIO);  // the sidecar takes reads 1 and 2
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "old");
}

// A Store failing at any step reports false, leaves the old content loadable
// (only after the very last step is the new one already in place), cleans up
// its scratch files and does not hinder the next Store or a later fallback.
TEST(FileUtil, FailedStepsKeepTheOldContent) {
  struct Step {
    Op op;
    int nth;
    bool newInPlace;
  };
  const Step steps[] = {
      {Op::kWrite, 1, false},  {Op::kWrite, 2, false},    {Op::kFsync, 1, false},
      {Op::kFsync, 2, false},  {Op::kDirFsync, 1, false}, {Op::kDirFsync, 2, true},
      {Op::kRename, 1, false}, {Op::kRename, 2, false},   {Op::kRename, 3, false}};
  for (const Step& step : steps) {
    for (int error : {ENOSPC, EIO, EROFS}) {
      SCOPED_TRACE(testing::Message() << "op " << static_cast<int>(step.op) << " call " << step.nth
                                      << " errno " << error);
      TempDir dir;
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "older"));
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "old"));
      {
        Injected injected;
        injected.ops.fail(step.op, step.nth, error);
        EXPECT_FALSE(FileUtil::Store(dir.path(), "core", "new"));
      }
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), step.newInPlace ? "new" : "old");
      for (const std::string& name : Listing(dir)) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
      }
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "next"));
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "next");
      WriteFile(dir.file("core"), "damaged");
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), step.newInPlace ? "new" : "old");
    }
  }
}

TEST(FileUtil, DropRemovesEveryVersion) {
  TempDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "A"));
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "B"));
  WriteFile(dir.file("core.tmp"), "left by a crash");
  ASSERT_TRUE(FileUtil::Store(dir.path(), "session", "kept"));
  EXPECT_TRUE(FileUtil::Drop(dir.path(), "core"));
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "");
  EXPECT_EQ(Listing(dir), (std::set<std::string>{"session", "session.sum"}));
  EXPECT_TRUE(FileUtil::Drop(dir.path(), "core"));
}

// Whichever removal fails, what is left loads as the newest content or as
// nothing, never as an older version.
TEST(FileUtil, InterruptedDropNeverBringsBackAnOlderVersion) {
  for (int nth = 1; nth <= 5; ++nth) {
    TempDir dir;
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "A"));
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "B"));
    {
      Injected injected;
      injected.ops.fail(Op::kUnlink, nth, EROFS, true);
      EXPECT_FALSE(FileUtil::Drop(dir.path(), "core")) << nth;
    }
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), nth <= 4 ? "B" : "") << nth;
  }
}

}  // namespace
