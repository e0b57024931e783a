// The installed tree, as a door author and a sysop get it from `cmake --install`: the programs,
// the reader's run folder, and libwicket with headers and pkg-config file. A door is compiled
// against the installed library through pkg-config alone, then run in stdio mode and under the
// installed wicket-host with a real TCP caller.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testsupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

#ifndef TAMBLIN_CMAKE_COMMAND
#define TAMBLIN_CMAKE_COMMAND "cmake"
#endif
#ifndef TAMBLIN_CXX_COMPILER
#define TAMBLIN_CXX_COMPILER "c++"
#endif

namespace {

struct TRun {
  int Exit = -1;       // exit status, 128 + signal, or -1 when it had to be killed
  std::string Output;  // standard output and standard error together
};

// Runs AArgs (found on PATH) with AInput on standard input, AEnv added to the environment,
// and a time limit; everything it writes is collected.
TRun RunProgram(const std::vector<std::string>& AArgs, const std::string& AInput = "",
                const std::vector<std::string>& AEnv = {}, std::chrono::seconds ALimit = 120s) {
  int In[2], Out[2];
  if (pipe2(In, O_CLOEXEC) != 0 || pipe2(Out, O_CLOEXEC) != 0) return {};
  std::vector<std::string> Args = AArgs;
  std::vector<char*> Argv;
  for (auto& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  std::vector<std::string> Env = AEnv;
  const pid_t Pid = fork();
  if (Pid == 0) {
    dup2(In[0], 0);
    dup2(Out[1], 1);
    dup2(Out[1], 2);
    for (auto& Pair : Env) putenv(Pair.data());
    execvp(Argv[0], Argv.data());
    _exit(127);
  }
  close(In[0]);
  close(Out[1]);
  if (!AInput.empty() && write(In[1], AInput.data(), AInput.size()) < 0) {
    // The program may not read at all.
  }
  close(In[1]);
  TRun Result;
  const auto End = std::chrono::steady_clock::now() + ALimit;
  for (;;) {
    pollfd P = {Out[0], POLLIN, 0};
    if (std::chrono::steady_clock::now() > End) {
      kill(Pid, SIGKILL);
      break;
    }
    if (poll(&P, 1, 100) <= 0) continue;
    char Buffer[4096];
    const ssize_t N = read(Out[0], Buffer, sizeof(Buffer));
    if (N <= 0) break;
    Result.Output.append(Buffer, static_cast<size_t>(N));
  }
  close(Out[0]);
  int Status = 0;
  waitpid(Pid, &Status, 0);
  if (WIFEXITED(Status)) Result.Exit = WEXITSTATUS(Status);
  if (WIFSIGNALED(Status)) Result.Exit = std::chrono::steady_clock::now() > End ? -1 : 128 + WTERMSIG(Status);
  return Result;
}

// The smallest door that shows the library working: where it runs, and one key from the caller.
const char* const TINY_DOOR = R"(#include <string>
#include "door/door.h"
int main() {
  DoorStartup();
  DoorWriteLn("Installed door on node " + std::to_string(DoorDropInfo.Node));
  const uint8_t Key = DoorReadKey();
  DoorWriteLn(std::string("Key: ") + static_cast<char>(Key));
  DoorShutdown();
  return 0;
}
)";

// The headers of wicket/ (relative to it) that are internal to their module: included only by
// the module's own files, and by none of its headers that the rest of the tree includes. Test
// files don't count, as tests may reach inside a module.
std::set<std::string> InternalHeaders() {
  const fs::path Lib = SourceDir() / "wicket";
  std::map<std::string, std::set<std::string>> Includers;  // header -> including files, tree-relative
  const std::regex Include(R"re(^\s*#\s*include\s*"([^"]+)")re");
  for (const char* Top : {"wicket", "reader", "host", "examples", "bench", "fuzz", "tests"}) {
    std::error_code Ec;
    for (const auto& Entry : fs::recursive_directory_iterator(SourceDir() / Top, Ec)) {
      const fs::path File = Entry.path();
      if (!Entry.is_regular_file() || File.string().find("_test") != std::string::npos) continue;
      if (File.extension() != ".h" && File.extension() != ".cpp") continue;
      std::istringstream Text(ReadWholeFile(File));
      std::smatch Match;
      for (std::string Line; std::getline(Text, Line);) {
        if (!std::regex_search(Line, Match, Include)) continue;
        const fs::path Beside = File.parent_path() / Match[1].str();
        const fs::path Header = fs::exists(Beside) ? Beside : Lib / Match[1].str();
        if (fs::exists(Header) && fs::relative(Header, Lib).native().rfind("..", 0) != 0)
          Includers[fs::relative(Header, Lib).string()].insert(fs::relative(File, SourceDir()).string());
      }
    }
  }
  // Public: a header some file outside its module includes, or one a public header includes.
  std::set<std::string> Internal;
  for (const auto& [Header, Files] : Includers) Internal.insert(Header);
  for (bool Changed = true; Changed;) {
    Changed = false;
    for (const auto& [Header, Files] : Includers) {
      const std::string Module = "wicket/" + fs::path(Header).parent_path().string() + "/";
      for (const auto& File : Files) {
        const bool Outside = File.rfind(Module, 0) != 0;
        const bool FromPublic = !Outside && File.ends_with(".h") && !Internal.contains(File.substr(7));
        if ((Outside || FromPublic) && Internal.erase(Header) != 0) Changed = true;
      }
    }
  }
  return Internal;
}

// One installation for all tests of this file.
class InstalledTree : public testing::Test {
 protected:
  static TTempDir* Prefix;
  static TRun Install;

  static void SetUpTestSuite() {
    Prefix = new TTempDir();
    Install = RunProgram(
        {TAMBLIN_CMAKE_COMMAND, "--install", BuildDir().string(), "--prefix", Prefix->Path.string()});
  }
  static void TearDownTestSuite() {
    delete Prefix;
    Prefix = nullptr;
  }
  static std::vector<std::string> PkgConfigEnv() {
    return {"PKG_CONFIG_PATH=" + (Prefix->Path / "lib" / "pkgconfig").string()};
  }
  // Compiles ASources into AProgram with the installed library's flags from pkg-config.
  static TRun BuildDoor(const std::vector<fs::path>& ASources, const fs::path& AProgram) {
    const TRun Flags = RunProgram({"pkg-config", "--cflags", "--libs", "wicket"}, "", PkgConfigEnv());
    if (Flags.Exit != 0) return Flags;
    std::vector<std::string> Args = {TAMBLIN_CXX_COMPILER, "-std=c++20"};
    for (const auto& Source : ASources) Args.push_back(Source.string());
    Args.push_back("-o");
    Args.push_back(AProgram.string());
    std::string Flag;
    for (char Ch : Flags.Output + " ") {
      if (Ch != ' ' && Ch != '\n') {
        Flag += Ch;
      } else if (!Flag.empty()) {
        Args.push_back(Flag);
        Flag.clear();
      }
    }
    return RunProgram(Args);
  }
};
TTempDir* InstalledTree::Prefix = nullptr;
TRun InstalledTree::Install;

TEST_F(InstalledTree, HoldsTheProgramsTheRunFolderAndTheLibrary) {
  ASSERT_EQ(Install.Exit, 0) << Install.Output;
  const fs::path P = Prefix->Path;
  for (const char* Program : {"bin/tamblin", "bin/wicket-host"}) {
    EXPECT_EQ(access((P / Program).c_str(), X_OK), 0) << Program;
  }
  for (const char* File : {"share/tamblin/tamblin.cfg", "lib/libwicket.a", "lib/pkgconfig/wicket.pc",
                           "include/wicket/door/door.h", "include/wicket/comm/comm.h"}) {
    EXPECT_TRUE(fs::is_regular_file(P / File)) << File;
  }
  // Every skin, byte for byte, where a run in share/tamblin looks for them.
  size_t Skins = 0;
  for (const auto& Entry : fs::directory_iterator(SourceDir() / "skins")) {
    if (Entry.path().extension() != ".ans") continue;
    ++Skins;
    const fs::path Installed = P / "share/tamblin/skins" / Entry.path().filename();
    ASSERT_TRUE(fs::exists(Installed)) << Installed;
    EXPECT_EQ(ReadWholeFile(Installed), ReadWholeFile(Entry.path()));
  }
  EXPECT_GT(Skins, 0u);
  // The library's headers in their folders, and none of the test helpers or a module's internals.
  const std::set<std::string> Internal = InternalHeaders();
  size_t Headers = 0;
  for (const auto& Entry : fs::recursive_directory_iterator(SourceDir() / "wicket")) {
    const std::string Relative = fs::relative(Entry.path(), SourceDir() / "wicket").string();
    if (Entry.path().extension() != ".h") continue;
    const bool Public = Relative.find("_testutil") == std::string::npos && !Internal.contains(Relative);
    EXPECT_EQ(fs::exists(P / "include/wicket" / Relative), Public) << Relative;
    Headers += Public ? 1 : 0;
  }
  EXPECT_GT(Headers, 10u);
}

TEST_F(InstalledTree, PkgConfigNamesTheInstalledLibrary) {
  ASSERT_EQ(Install.Exit, 0) << Install.Output;
  const TRun Flags = RunProgram({"pkg-config", "--cflags", "--libs", "wicket"}, "", PkgConfigEnv());
  ASSERT_EQ(Flags.Exit, 0) << Flags.Output;
  EXPECT_NE(Flags.Output.find("-I" + (Prefix->Path / "include/wicket").string()), std::string::npos)
      << Flags.Output;
  EXPECT_NE(Flags.Output.find("-L" + (Prefix->Path / "lib").string()), std::string::npos) << Flags.Output;
  EXPECT_NE(Flags.Output.find("-lwicket -lpthread"), std::string::npos) << Flags.Output;
}

// The example door, as a door author copies it: it builds from the installed tree alone and
// shows its usage screen.
TEST_F(InstalledTree, ExampleDoorBuildsAgainstTheInstalledLibrary) {
  ASSERT_EQ(Install.Exit, 0) << Install.Output;
  std::vector<fs::path> Sources;
  std::error_code Ec;
  for (const auto& Entry : fs::directory_iterator(SourceDir() / "examples", Ec)) {
    const std::string Name = Entry.path().filename().string();
    if (Entry.path().extension() == ".cpp" && Name.find("_test") == std::string::npos)
      Sources.push_back(Entry.path());
  }
  ASSERT_FALSE(Sources.empty()) << "no example door in " << (SourceDir() / "examples");
  TTempDir Work;
  const TRun Build = BuildDoor(Sources, Work.Path / "example");
  ASSERT_EQ(Build.Exit, 0) << Build.Output;
  const TRun Usage = RunProgram({(Work.Path / "example").string(), "/?"}, "", {}, 20s);
  EXPECT_EQ(Usage.Exit, 0) << Usage.Output;
  EXPECT_NE(Usage.Output.find("USAGE"), std::string::npos) << Usage.Output;
}

// A door of the author's own, built from the installed tree, on both kinds of run: stdio mode,
// and a telnet caller through the installed wicket-host.
TEST_F(InstalledTree, OwnDoorRunsInStdioModeAndUnderTheInstalledHost) {
  ASSERT_EQ(Install.Exit, 0) << Install.Output;
  TTempDir Work;
  WriteWholeFile(Work.Path / "tiny.cpp", TINY_DOOR);
  const fs::path Door = Work.Path / "tiny";
  const TRun Build = BuildDoor({Work.Path / "tiny.cpp"}, Door);
  ASSERT_EQ(Build.Exit, 0) << Build.Output;

  const TRun Stdio = RunProgram({Door.string(), "-S-1", "-N3"}, "x", {}, 20s);
  EXPECT_EQ(Stdio.Exit, 0) << Stdio.Output;
  EXPECT_NE(Stdio.Output.find("Installed door on node 3"), std::string::npos) << Stdio.Output;
  EXPECT_NE(Stdio.Output.find("Key: x"), std::string::npos) << Stdio.Output;

  // The host runs in the background with its log in a file; the caller is this test.
  const fs::path Log = Work.Path / "host.log";
  const std::string Host = (Prefix->Path / "bin/wicket-host").string();
  std::vector<std::string> Args = {Host,          "--listen", "127.0.0.1:0", "--",
                                   Door.string(), "-S{fd}",   "-N{node}"};
  std::vector<char*> Argv;
  for (auto& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  const pid_t HostPid = fork();
  if (HostPid == 0) {
    const int LogFd = open(Log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(LogFd, 2);
    execv(Argv[0], Argv.data());
    _exit(127);
  }
  int Port = 0;
  for (int Try = 0; Try < 1000 && Port == 0; ++Try) {
    std::this_thread::sleep_for(10ms);
    std::smatch Match;
    std::error_code Missing;
    const std::string Text = fs::exists(Log, Missing) ? ReadWholeFile(Log) : "";
    if (std::regex_search(Text, Match, std::regex("listening on 127\\.0\\.0\\.1:([0-9]+)")))
      Port = std::stoi(Match[1]);
  }
  ASSERT_NE(Port, 0);
  const int Fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in Address{};
  Address.sin_family = AF_INET;
  Address.sin_port = htons(static_cast<uint16_t>(Port));
  Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(Fd, reinterpret_cast<sockaddr*>(&Address), sizeof(Address)), 0);
  std::string Wire;
  bool KeySent = false;
  const auto End = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < End) {
    pollfd P = {Fd, POLLIN, 0};
    if (poll(&P, 1, 100) <= 0) continue;
    char Buffer[4096];
    const ssize_t N = recv(Fd, Buffer, sizeof(Buffer), 0);
    if (N <= 0) break;
    Wire.append(Buffer, static_cast<size_t>(N));
    if (!KeySent && Wire.find("node 1") != std::string::npos) {
      ASSERT_EQ(send(Fd, "x", 1, 0), 1);
      KeySent = true;
    }
  }
  close(Fd);
  kill(HostPid, SIGTERM);
  int Status = 0;
  waitpid(HostPid, &Status, 0);

  EXPECT_EQ(Wire.substr(0, 9), std::string("\xFF\xFB\x03\xFF\xFB\x00\xFF\xFB\x01", 9));
  EXPECT_NE(Wire.find("Installed door on node 1"), std::string::npos) << Wire;
  const size_t Key = Wire.find("Key: x");
  const size_t Back = Wire.find("Back at the host.\r\n");
  EXPECT_NE(Key, std::string::npos) << Wire;
  EXPECT_NE(Back, std::string::npos) << Wire;
  EXPECT_LT(Key, Back);
  EXPECT_TRUE(WIFEXITED(Status) && WEXITSTATUS(Status) == 0);
  EXPECT_NE(ReadWholeFile(Log).find(", exit 0, "), std::string::npos) << ReadWholeFile(Log);
}

}  // namespace
