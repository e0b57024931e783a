// The skin pick: which directory entries count, the path form, and that every candidate is
// equally likely under the generator the program seeds from the clock.
#include "skins.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "testsupport.h"

namespace fs = std::filesystem;

namespace {

void Touch(const fs::path& APath) { WriteWholeFile(APath, "\x1B[0mskin"); }

}  // namespace

TEST(GetRandomAnsFile, OnlyVisibleAnsFilesAreCandidates) {
  TTempDir Dir;
  // The one candidate is a link to a file, whose own name does not count.
  fs::create_directory(Dir.Path / "art");
  Touch(Dir.Path / "art" / "real.txt");
  fs::create_symlink(Dir.Path / "art" / "real.txt", Dir.Path / "only.ans");
  for (const char* Name : {"upper.ANS", ".hidden.ans", "notes.ans.txt", "ans", "README.md"})
    Touch(Dir.Path / Name);
  fs::create_directory(Dir.Path / "folder.ans");
  fs::create_symlink(Dir.Path / "folder.ans", Dir.Path / "dirlink.ans");
  fs::create_symlink(Dir.Path / "missing", Dir.Path / "broken.ans");
  ASSERT_EQ(mkfifo((Dir.Path / "pipe.ans").c_str(), 0600), 0);
  const std::string Base = Dir.Path.string();
  for (uint64_t Seed = 0; Seed < 50; ++Seed) {
    SeedRandom(Seed);
    ASSERT_EQ(GetRandomAnsFile(Base), Base + "/only.ans");
  }
  // The name is listed under the directory as given; a trailing "/" is not dropped.
  EXPECT_EQ(GetRandomAnsFile(Base + "/"), Base + "//only.ans");
}

TEST(GetRandomAnsFile, NothingToPickGivesEmpty) {
  TTempDir Dir;
  EXPECT_EQ(GetRandomAnsFile(Dir.Path.string()), "");
  EXPECT_EQ(GetRandomAnsFile((Dir.Path / "absent").string()), "");
  Touch(Dir.Path / "file");
  EXPECT_EQ(GetRandomAnsFile((Dir.Path / "file").string()), "");
  EXPECT_EQ(GetRandomAnsFile(""), "");  // lists "/", which holds no skins
}

TEST(GetRandomAnsFile, EveryCandidateEquallyLikely) {
  TTempDir Dir;
  const char* Names[] = {"a.ans", "b.ans", "c.ans", "d.ans"};
  for (const char* Name : Names) Touch(Dir.Path / Name);
  std::map<std::string, int> Count;
  SeedRandom(1754000000);
  constexpr int DRAWS = 4000;
  for (int I = 0; I < DRAWS; ++I) ++Count[GetRandomAnsFile(Dir.Path.string())];
  ASSERT_EQ(Count.size(), 4u);
  for (const auto& [Path, N] : Count) {
    EXPECT_GT(N, DRAWS / 4 - 200) << Path;  // about 6 standard deviations either side
    EXPECT_LT(N, DRAWS / 4 + 200) << Path;
  }
}

TEST(ChooseSkin, ConfiguredNameIsAlwaysTakenInsideSkins) {
  TTempDir Dir;
  const fs::path Old = fs::current_path();
  fs::current_path(Dir.Path);
  fs::create_directory("skins");
  Touch("skins/one.ans");
  EXPECT_EQ(ChooseSkin(""), "skins/one.ans");
  EXPECT_EQ(ChooseSkin("gone.ans"), "skins/gone.ans");  // not checked here: the display reports it
  EXPECT_EQ(ChooseSkin("/etc/passwd"), "skins//etc/passwd");
  EXPECT_EQ(ChooseSkin("../x.ans"), "skins/../x.ans");
  fs::remove_all("skins");
  EXPECT_EQ(ChooseSkin(""), "");
  fs::current_path(Old);
}
