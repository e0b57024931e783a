// The whole road as a newcomer takes it: the bundled sample feed on a loopback server,
// wicket-host with tamblin in a run folder, and Debian's own telnet client in an 80 by 25
// terminal (a detached tmux session), typing N, P, A, a key and Q. What is checked is what a
// person sees in that terminal: the item's title on its row, the counter on row 1, the command
// line on row 25, the About view, and the host's line after the door has ended. Only text rows
// are read: the skin's CP437 art shows as other characters on a UTF-8 terminal.
//
// The test is skipped where tmux or telnet is not installed.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "feedserver.h"
#include "readerrun.h"
#include "testsupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using TClock = std::chrono::steady_clock;

namespace {

const std::string CMD = "[A]bout   [N]ext   [P]revious   [Q]uit";
// The first two items of samples/bbs-news.xml as the door cleans them (the accent of "Café"
// folded to 7-bit).
const std::string TITLE_1 = "Node 4 comes back after the great modem fire";
const std::string TITLE_2 = "Cafe Terminal opens a message base for recipes";

bool OnPath(const std::string& AProgram) {
  const char* Path = std::getenv("PATH");
  std::stringstream Dirs(Path != nullptr ? Path : "/usr/bin:/bin");
  std::string Dir;
  while (std::getline(Dirs, Dir, ':'))
    if (!Dir.empty() && access((fs::path(Dir) / AProgram).c_str(), X_OK) == 0) return true;
  return false;
}

bool WaitFor(const std::function<bool()>& ACondition, std::chrono::milliseconds ALimit) {
  const auto End = TClock::now() + ALimit;
  while (!ACondition()) {
    if (TClock::now() > End) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

// Runs AArgs (found on PATH) to its end with standard output captured; standard input and
// error are /dev/null. Returns its exit status, or -1.
int RunProgram(const std::vector<std::string>& AArgs, std::string* AOutput = nullptr) {
  int Out[2];
  if (pipe2(Out, O_CLOEXEC) != 0) return -1;
  std::vector<std::string> Args = AArgs;
  std::vector<char*> Argv;
  for (std::string& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  const pid_t Pid = fork();
  if (Pid == 0) {
    const int Null = open("/dev/null", O_RDWR);
    dup2(Null, 0);
    dup2(Out[1], 1);
    dup2(Null, 2);
    execvp(Argv[0], Argv.data());
    _exit(127);
  }
  close(Out[1]);
  std::string Text;
  char Buffer[4096];
  for (ssize_t N; (N = read(Out[0], Buffer, sizeof Buffer)) != 0;) {
    if (N > 0)
      Text.append(Buffer, static_cast<size_t>(N));
    else if (errno != EINTR)
      break;
  }
  close(Out[0]);
  int Status = 0;
  if (Pid < 0 || waitpid(Pid, &Status, 0) != Pid) return -1;
  if (AOutput != nullptr) *AOutput = Text;
  return WIFEXITED(Status) ? WEXITSTATUS(Status) : -1;
}

// wicket-host on a free loopback port, its log in a file.
struct THost {
  pid_t Pid = -1;
  int Port = 0;
  fs::path Log;

  THost() = default;
  THost(const THost&) = delete;
  THost& operator=(const THost&) = delete;
  ~THost() {
    if (Pid <= 0) return;
    kill(Pid, SIGTERM);  // hangs up any door still running and stops
    if (!WaitFor([&] { return waitpid(Pid, nullptr, WNOHANG) == Pid; }, 5s)) {
      kill(Pid, SIGKILL);
      waitpid(Pid, nullptr, 0);
    }
  }
  std::string LogText() const { return ReadWholeFile(Log); }
};

void StartHost(THost& AHost, const fs::path& ALog, const fs::path& ARunDir) {
  const std::string Program = (BuildDir() / "wicket-host").string();
  ASSERT_TRUE(fs::exists(Program)) << "build wicket-host first";
  std::vector<std::string> Args = {
      Program,  "--listen", "127.0.0.1:0", "--cwd", ARunDir.string(), "--", (BuildDir() / "tamblin").string(),
      "-S{fd}", "-N{node}", "@tamblin.cfg"};
  std::vector<char*> Argv;
  for (std::string& Arg : Args) Argv.push_back(Arg.data());
  Argv.push_back(nullptr);
  AHost.Log = ALog;
  const std::string LogName = ALog.string();
  AHost.Pid = fork();
  ASSERT_GE(AHost.Pid, 0);
  if (AHost.Pid == 0) {
    const int Null = open("/dev/null", O_RDWR);
    const int LogFd = open(LogName.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(Null, 0);
    dup2(Null, 1);
    dup2(LogFd, 2);
    execv(Argv[0], Argv.data());
    _exit(127);
  }
  const std::regex Listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
  ASSERT_TRUE(WaitFor(
      [&] {
        std::smatch Match;
        const std::string Text = fs::exists(ALog) ? AHost.LogText() : "";
        if (!std::regex_search(Text, Match, Listening)) return false;
        AHost.Port = std::stoi(Match[1]);
        return true;
      },
      5s))
      << "wicket-host never listened";
}

// A tmux server of the test's own (its socket in the test's folder), one 80 by 25 session
// without a status line, whose pane stays readable after its program has ended.
struct TTerminal {
  fs::path Socket, Config;
  bool Started = false;

  TTerminal() = default;
  TTerminal(const TTerminal&) = delete;
  TTerminal& operator=(const TTerminal&) = delete;
  ~TTerminal() {
    if (Started) Tmux({"kill-server"});
  }
  int Tmux(std::vector<std::string> AArgs, std::string* AOutput = nullptr) const {
    AArgs.insert(AArgs.begin(), {"tmux", "-S", Socket.string(), "-f", Config.string()});
    return RunProgram(AArgs, AOutput);
  }
  // The 25 rows as shown, trailing blanks removed.
  std::vector<std::string> Rows() const {
    std::string Text;
    Tmux({"capture-pane", "-p", "-t", "caller"}, &Text);
    std::vector<std::string> Result;
    std::stringstream Lines(Text);
    for (std::string Line; std::getline(Lines, Line);) Result.push_back(Line);
    Result.resize(25);
    return Result;
  }
  std::string Dump() const {
    std::string Text;
    int Y = 0;
    for (const std::string& Row : Rows()) {
      ++Y;
      Text += (Y < 10 ? " " : "") + std::to_string(Y) + "|" + Row + "\n";
    }
    return Text;
  }
  void Keys(const std::string& AKeys) const {
    EXPECT_EQ(Tmux({"send-keys", "-t", "caller", "-l", AKeys}), 0);
  }
};

// AText on row AY (1-based) from column AX (1-based).
bool TextAt(const std::vector<std::string>& ARows, int AX, int AY, const std::string& AText) {
  const std::string& Row = ARows[static_cast<size_t>(AY - 1)];
  return Row.size() >= static_cast<size_t>(AX - 1) + AText.size() &&
         Row.compare(static_cast<size_t>(AX - 1), AText.size(), AText) == 0;
}

// The column where the door centres a title of that length in its box.
int TitleColumn(const std::string& ATitle) { return (82 - static_cast<int>(ATitle.size())) / 2; }

}  // namespace

TEST(TelnetClient, NewcomerPagesTheSampleFeedThroughWicketHost) {
  if (!OnPath("tmux") || !OnPath("telnet")) GTEST_SKIP() << "needs the Debian packages tmux and telnet";

  TTempDir Dir;
  const fs::path Run = Dir.Path / "run", Home = Dir.Path / "home";
  fs::create_directories(Run / "skins");
  fs::create_directories(Home);
  for (const auto& Entry : fs::directory_iterator(SourceDir() / "skins"))
    if (Entry.path().extension() == ".ans")
      fs::copy_file(Entry.path(), Run / "skins" / Entry.path().filename());
  const std::string Feed = ReadWholeFile(SourceDir() / "samples" / "bbs-news.xml");
  size_t Items = 0;
  for (size_t At = Feed.find("<item>"); At != std::string::npos; At = Feed.find("<item>", At + 1)) ++Items;
  char Counter1[16], Counter2[16];
  std::snprintf(Counter1, sizeof Counter1, "(01/%zu)", Items);
  std::snprintf(Counter2, sizeof Counter2, "(02/%zu)", Items);

  TFeedServer Server;
  StartFeedServer(Server, HttpOk(Feed));
  WriteWholeFile(Run / "tamblin.cfg", SettingsText(FeedServerUrl(Server, "/bbs-news.xml"), "newsstand.ans"));
  THost Host;
  StartHost(Host, Dir.Path / "host.log", Run);
  if (HasFatalFailure()) return;

  // No start-up file for the client: the host's WILL SGA and the door's WILL ECHO must put it in
  // character mode by themselves, so that each key reaches the door as it is typed.
  TTerminal Term;
  Term.Socket = Dir.Path / "tmux.sock";
  Term.Config = Dir.Path / "tmux.conf";
  WriteWholeFile(Term.Config, "set -g status off\nset -g remain-on-exit on\n");
  const std::string Telnet =
      "env -u TMUX HOME='" + Home.string() + "' telnet 127.0.0.1 " + std::to_string(Host.Port);
  ASSERT_EQ(Term.Tmux({"new-session", "-d", "-s", "caller", "-x", "80", "-y", "25", Telnet}), 0);
  Term.Started = true;

  const auto ShowsItem = [&](const std::string& ATitle, const char* ACounter) {
    return WaitFor(
        [&] {
          const auto Rows = Term.Rows();
          return TextAt(Rows, TitleColumn(ATitle), 3, ATitle) && TextAt(Rows, 74, 1, ACounter) &&
                 TextAt(Rows, 22, 25, CMD);
        },
        5s);
  };
  ASSERT_TRUE(ShowsItem(TITLE_1, Counter1)) << Term.Dump() << Host.LogText();

  Term.Keys("N");
  ASSERT_TRUE(ShowsItem(TITLE_2, Counter2)) << Term.Dump();
  Term.Keys("P");
  ASSERT_TRUE(ShowsItem(TITLE_1, Counter1)) << Term.Dump();

  Term.Keys("A");
  ASSERT_TRUE(WaitFor(
      [&] {
        const auto Rows = Term.Rows();
        bool Prompt = false;
        for (const std::string& Row : Rows)
          Prompt = Prompt || Row.find("*** Press Any Key To Continue Reading ***") != std::string::npos;
        return Rows[2].find("About (ver ") != std::string::npos && Prompt;
      },
      5s))
      << Term.Dump();
  Term.Keys("x");
  ASSERT_TRUE(ShowsItem(TITLE_1, Counter1)) << Term.Dump();

  Term.Keys("Q");
  ASSERT_TRUE(WaitFor(
      [&] {
        for (const std::string& Row : Term.Rows())
          if (Row == "Back at the host.") return true;
        return false;
      },
      5s))
      << Term.Dump();
  EXPECT_TRUE(WaitFor([&] { return Host.LogText().find("node 1: door ended") != std::string::npos; }, 5s));
  EXPECT_NE(Host.LogText().find(", exit 0, "), std::string::npos) << Host.LogText();
  EXPECT_EQ(Server.Requests, 1);
}
