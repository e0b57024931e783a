// The skin pick: which directory entries count, the path form, and that every candidate is
// equally likely under the generator the program seeds from the clock; and the one check a
// skin passes before it is shown, whether picked or named in the settings.
#include "skins.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "door/doorlink_testutil.h"
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
  TTempDir Elsewhere;
  Touch(Elsewhere.Path / "outside.ans");
  fs::create_symlink(Elsewhere.Path / "outside.ans", Dir.Path / "out.ans");
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
  constexpr int Draws = 4000;
  for (int I = 0; I < Draws; ++I) ++Count[GetRandomAnsFile(Dir.Path.string())];
  ASSERT_EQ(Count.size(), 4u);
  for (const auto& [Path, N] : Count) {
    EXPECT_GT(N, Draws / 4 - 200) << Path;  // about 6 standard deviations either side
    EXPECT_LT(N, Draws / 4 + 200) << Path;
  }
}

TEST(ChooseSkin, EmptyNamePicksFromSkins) {
  TTempDir Dir;
  const fs::path Old = fs::current_path();
  fs::current_path(Dir.Path);
  fs::create_directory("skins");
  Touch("skins/one.ans");
  EXPECT_EQ(ChooseSkin(""), "skins/one.ans");
  EXPECT_EQ(ChooseSkin("gone.ans"), "skins/gone.ans");  // checked when it is shown
  fs::remove_all("skins");
  EXPECT_EQ(ChooseSkin(""), "");
  fs::current_path(Old);
}

// The skin setting names a skin and nothing else: whatever leaves the skins folder, and
// whatever is not a regular file, reads to the caller as a missing skin, at once (a FIFO with
// no writer must not stall the door); and no skin line, however long, is held whole.
TEST(DisplaySkin, OnlyRegularFilesInsideSkinsAreShown) {
  TTempDir Dir;
  const fs::path Old = fs::current_path();
  fs::current_path(Dir.Path);
  fs::create_directories("skins/sub");
  WriteWholeFile("skins/good.ans", "good\nskin");
  WriteWholeFile("skins/sub/deep.ans", "deep");
  WriteWholeFile("secret.txt", "secret");
  fs::create_directory("skinsplus");  // a neighbour whose name starts with the folder's
  WriteWholeFile("skinsplus/near.ans", "near");
  WriteWholeFile("skins/long.ans", std::string(3 << 20, 'x') + "\r\nend");
  fs::create_symlink("good.ans", "skins/inlink.ans");
  fs::create_symlink("../secret.txt", "skins/outlink.ans");
  fs::create_symlink(Dir.Path, "skins/up");
  fs::create_symlink("/dev/zero", "skins/zero.ans");
  fs::create_directory("skins/folder.ans");
  ASSERT_EQ(mkfifo("skins/pipe.ans", 0600), 0);
  const std::pair<std::string, std::string> Cases[] = {
      {"good.ans", "good\r\nskin"},
      {"sub/deep.ans", "deep"},
      {"sub/../inlink.ans", "good\r\nskin"},
      {"long.ans", std::string(1 << 20, 'x') + "\r\nend"},  // a line keeps its first MiB
      {"gone.ans", ""},
      {"../secret.txt", ""},
      {"../skinsplus/near.ans", ""},
      {"../../../../../../../../etc/passwd", ""},
      {"/etc/passwd", ""},
      {"outlink.ans", ""},
      {"up/secret.txt", ""},
      {"zero.ans", ""},
      {"folder.ans", ""},
      {"pipe.ans", ""},
      {"sub", ""},
  };
  for (const auto& [Name, Shown] : Cases) {
    const std::string Path = ChooseSkin(Name);
    TDoorRun Door([&](int) { DisplaySkin(Path); }, {.OnLink = true});
    const std::string Want =
        !Shown.empty() ? Shown
                       : "Error reading \"" + Path + "\": File not found\r\nHit a key to continue\r\n";
    std::string Got;
    EXPECT_TRUE(WaitFor(Door.Caller, Got, Want)) << Name;
    if (Shown.empty()) Send(Door.Caller, " ");  // the key a missing skin waits for
    EXPECT_EQ(FinishDoor(Door), 0) << Name;
    Got += Door.Heard;
    EXPECT_EQ(Got.size(), Want.size()) << Name;
    EXPECT_TRUE(Got == Want) << Name << ": " << HexBytes(Got.substr(0, 80));
  }
  fs::current_path(Old);
}
