#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "gtest/gtest.h"
#include "support/FailingFileOperations.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::FileOperations;
using Lum::Core::FileUtil;
using LumTest::ReadFile;
using LumTest::TempDir;
using LumTest::WriteFile;

enum Op { kWrite, kFsync, kRename };

// Real POSIX calls, except that the nth call of one kind fails with a chosen
// errno. A Store makes, in order: write+fsync of the new content, write+fsync
// of the checksum sidecar, rename of the sidecar, fsync of the directory,
// rename of the current file to the previous one, rename of the new content
// into place, fsync of the directory.
class FaultyOperations : public FileOperations {
 public:
  FaultyOperations(Op op, int nth, int error) : op_(op), nth_(nth), error_(error) {
    FileUtil::SetOperations(this);
  }
  ~FaultyOperations() override { FileUtil::SetOperations(nullptr); }
  ssize_t write(int fd, const void* b, size_t n) override {
    return hit(kWrite) ? -1 : FileOperations::write(fd, b, n);
  }
  int fsync(int fd) override { return hit(kFsync) ? -1 : FileOperations::fsync(fd); }
  int rename(const char* from, const char* to) override {
    return hit(kRename) ? -1 : FileOperations::rename(from, to);
  }

 private:
  bool hit(Op op) {
    if (op != op_ || ++count_ != nth_) return false;
    errno = error_;
    return true;
  }
  Op op_;
  int nth_, error_, count_ = 0;
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
  std::string large(1 << 20, 'x');
  large[12345] = 'y';
  for (const std::string& content : {std::string(), std::string("a\0b\xff\n", 5), large}) {
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", content));
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), content);
    EXPECT_EQ(ReadFile(dir.file("core")), content);
  }
  ASSERT_TRUE(FileUtil::Store(dir.path() + "/", "daTime", "other"));
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), large);
  EXPECT_EQ(FileUtil::Load(dir.path(), "daTime"), "other");
}

TEST(FileUtil, MissingAndInvalidNames) {
  TempDir dir;
  EXPECT_EQ(FileUtil::Load(dir.path(), "absent"), "");
  EXPECT_FALSE(FileUtil::Store(dir.file("nodir"), "core", "x"));
  for (const char* name : {"", "..", "sub/core"}) {
    EXPECT_FALSE(FileUtil::Store(dir.path(), name, "x")) << name;
    EXPECT_FALSE(FileUtil::Drop(dir.path(), name)) << name;
  }
  EXPECT_TRUE(Listing(dir).empty());
}

TEST(FileUtil, FileWithoutChecksumLoadsIfJsonAndBecomesTheFallback) {
  TempDir dir;
  WriteFile(dir.file("core"), "hand written");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "");
  WriteFile(dir.file("core"), "{\"hand\": \"written\"}\n");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "{\"hand\": \"written\"}\n");
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "stored"));
  WriteFile(dir.file("core"), "stored, then damaged");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "{\"hand\": \"written\"}\n");
}

// The newest content truncated, changed in one byte or emptied after "old"
// and then "new" were stored.
TEST(FileUtil, DamagedNewestFallsBackToThePreviousGoodVersion) {
  for (const char* damaged : {"{\"gidTok", "{\"gidToken\":\"nex\"}", ""}) {
    TempDir dir;
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "old"));
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "{\"gidToken\":\"new\"}"));
    WriteFile(dir.file("core"), damaged);
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "old") << damaged;
  }
}

// Without a sidecar to check against, a torn newest file is told apart by not
// being a whole JSON document; the next Store must keep the intact previous
// version as its fallback, not the torn text.
TEST(FileUtil, UnreadableChecksumTrustsOnlyWholeJson) {
  const std::string v1 = "{\"v\":1}", v2 = "{\"v\":2,\"pad\":\"xx\"}", v3 = "{\"v\":3}";
  const std::string torn = v2.substr(0, 7);
  for (const char* sidecar :
       {static_cast<const char*>(nullptr), "", "lumfile 1\n1 8 ", "lumfile 1\nnot a line\n"}) {
    SCOPED_TRACE(sidecar == nullptr ? "no sidecar" : sidecar);
    TempDir dir;
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", v1));
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", v2));
    if (sidecar == nullptr) {
      std::filesystem::remove(dir.file("core.sum"));
    } else {
      WriteFile(dir.file("core.sum"), sidecar);
    }
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), v2);
    WriteFile(dir.file("core"), torn);
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), v1);
    ASSERT_TRUE(FileUtil::Store(dir.path(), "core", v3));
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), v3);
    WriteFile(dir.file("core"), torn);
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), v1);
    std::filesystem::remove(dir.file("core.sum"));
    WriteFile(dir.file("core.prev"), torn);
    EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "");
  }
}

// An oversized version is skipped without being read in whole; Store refuses
// what Load would skip, unless the caller loads with a larger limit.
TEST(FileUtil, VersionsOverTheSizeLimitAreIgnored) {
  struct CountingOperations : FileOperations {
    CountingOperations() { FileUtil::SetOperations(this); }
    ~CountingOperations() override { FileUtil::SetOperations(nullptr); }
    ssize_t read(int fd, void* b, size_t n) override {
      const ssize_t got = FileOperations::read(fd, b, n);
      bytes += got > 0 ? static_cast<size_t>(got) : 0;
      return got;
    }
    size_t bytes = 0;
  };
  constexpr size_t kLimit = FileUtil::kDefaultMaxBytes;
  const std::string big = "[\"" + std::string(2 * kLimit, 'x') + "\"]";
  TempDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "data", "[1]"));
  EXPECT_FALSE(FileUtil::Store(dir.path(), "data", big));
  ASSERT_TRUE(FileUtil::Store(dir.path(), "data", big, 3 * kLimit));
  EXPECT_TRUE(FileUtil::Load(dir.path(), "data", 3 * kLimit) == big);
  for (bool checksum : {true, false}) {
    SCOPED_TRACE(checksum ? "with checksum" : "without checksum");
    if (!checksum) std::filesystem::remove(dir.file("data.sum"));
    LumTest::LogCapture log("warning");
    CountingOperations counting;
    const std::string loaded = FileUtil::Load(dir.path(), "data");
    EXPECT_TRUE(loaded == "[1]") << loaded.size() << " bytes loaded";
    EXPECT_LT(counting.bytes, kLimit + 4096);
    EXPECT_TRUE(log.logged(dir.file("data") + " is larger than 1048576 bytes, ignoring it"))
        << log.text();
  }
}

TEST(FileUtil, DamagedCurrentIsNeverKeptAsTheFallback) {
  TempDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "A"));
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "B"));
  WriteFile(dir.file("core"), "B damaged");
  ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "C"));
  WriteFile(dir.file("core"), "C damaged");
  EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "A");
}

// A Store failing at any step reports false, leaves the old content loadable
// (only after the very last step is the new one already in place), cleans up
// its scratch files and does not hinder the next Store or a later fallback.
TEST(FileUtil, FailedStepsKeepTheOldContent) {
  const struct {
    Op op;
    int nth;
    bool newInPlace;
  } steps[] = {{kWrite, 1, false},  {kWrite, 2, false},  {kFsync, 1, false},
               {kFsync, 2, false},  {kFsync, 3, false},  {kFsync, 4, true},
               {kRename, 1, false}, {kRename, 2, false}, {kRename, 3, false}};
  for (const auto& step : steps) {
    for (int error : {ENOSPC, EIO, EROFS}) {
      SCOPED_TRACE(testing::Message()
                   << "op " << step.op << " call " << step.nth << " errno " << error);
      TempDir dir;
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "older"));
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "old"));
      {
        FaultyOperations faulty(step.op, step.nth, error);
        EXPECT_FALSE(FileUtil::Store(dir.path(), "core", "new"));
      }
      const char* kept = step.newInPlace ? "new" : "old";
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), kept);
      for (const std::string& name : Listing(dir)) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
      }
      ASSERT_TRUE(FileUtil::Store(dir.path(), "core", "next"));
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), "next");
      WriteFile(dir.file("core"), "damaged");
      EXPECT_EQ(FileUtil::Load(dir.path(), "core"), kept);
    }
  }
}

// Every system call of one Store, Replace or Drop failing in turn, with each
// errno a full, failing or read-only disk gives: nothing older than the last
// completed store ever comes back, the new content shows only once its final
// rename is done, and the first clean call afterwards succeeds.
TEST(FileUtil, EveryCallFailingInTurnKeepsTheNewestCompletedContent) {
  const std::string older = R"({"v":"older"})", old = R"({"v":"old"})", fresh = R"({"v":"new"})";
  using Call = std::function<bool(const std::string& dir, const std::string& content)>;
  const struct {
    const char* name;
    Call call;
    bool dropsAll;
  } operations[] = {
      {"Store", [](auto& dir, auto& text) { return FileUtil::Store(dir, "core", text); }, false},
      {"Replace",
       [](auto& dir, auto& text) { return FileUtil::Replace(dir, "core", "core.part", text); },
       false},
      {"Drop", [](auto& dir, auto&) { return FileUtil::Drop(dir, "core"); }, true},
  };
  auto load = [](const std::string& dir, bool sidecar) {
    std::string text;
    if (sidecar) return FileUtil::Load(dir, "core");
    return FileUtil::ReadAll(dir, "core", 1024, text) ? text : std::string();
  };
  for (const auto& op : operations) {
    const bool sidecar = std::string(op.name) != "Replace";
    for (int error : {ENOSPC, EIO, EROFS}) {
      int lastRename = 0;
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << op.name << " call " << nth << " errno " << error);
        TempDir dir;
        for (const std::string* text : {&older, &old}) {
          ASSERT_TRUE(sidecar ? FileUtil::Store(dir.path(), "core", *text)
                              : FileUtil::Replace(dir.path(), "core", "core.part", *text));
        }
        LumTest::FailingFileOperations faulty;
        faulty.failNth(nth, error);
        bool done = false;
        EXPECT_NO_THROW(done = op.call(dir.path(), fresh));
        const std::vector<std::string> kinds = faulty.kinds();
        const int calls = faulty.calls();
        faulty.failNth(0, 0);
        const std::string now = load(dir.path(), sidecar);
        const std::string expected = op.dropsAll ? "" : fresh;
        if (calls < nth) {  // completed without reaching the fault
          EXPECT_TRUE(done);
          EXPECT_EQ(now, expected);
          EXPECT_GT(nth, 1);
          break;
        }
        for (int i = 0; i < nth; ++i) lastRename = kinds[i] == "rename" ? i + 1 : lastRename;
        // Before its last rename nothing has changed what loads.
        const bool renamed = lastRename != 0 && nth > lastRename;
        if (done) {
          EXPECT_EQ(now, expected) << "success claimed";
        } else {
          EXPECT_TRUE(now == old || (now == expected && (renamed || op.dropsAll))) << now;
        }
        ASSERT_TRUE(op.call(dir.path(), fresh)) << "no recovery once the fault is gone";
        EXPECT_EQ(load(dir.path(), sidecar), expected);
        ASSERT_TRUE(FileUtil::Store(dir.path(), "core", older));
        EXPECT_EQ(FileUtil::Load(dir.path(), "core"), older);
      }
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

}  // namespace
