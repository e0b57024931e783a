// The comm link against a real socketpair: the test holds the caller's end and checks the
// bytes on the wire. The link keeps one-way state (the carrier never comes back), so every
// test runs its body in a forked child with a fresh copy of the module.
#include "comm.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace std::string_literals;

namespace {

const std::string ANNOUNCEMENTS = "\xFF\xFB\x00\xFF\xFB\x01"s;

// Runs ABody in a forked child and fails the test if the child failed a check or died.
// SIGPIPE is at its default there, so a send that raised it would kill the child.
void InChild(const std::function<void()>& ABody) {
  fflush(nullptr);
  const pid_t Pid = fork();
  ASSERT_NE(Pid, -1);
  if (Pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    ABody();
    fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int Status = 0;
  ASSERT_EQ(waitpid(Pid, &Status, 0), Pid);
  if (WIFSIGNALED(Status)) FAIL() << "child killed by signal " << WTERMSIG(Status);
  EXPECT_TRUE(WIFEXITED(Status) && WEXITSTATUS(Status) == 0) << "child failed a check";
}

struct TPair {
  int Door = -1;  // handed to CommOpen
  int Peer = -1;  // the caller's end, kept by the test
};

// SOCK_SEQPACKET keeps every send a record of its own, so the test sees send boundaries;
// SOCK_STREAM behaves like the caller's TCP connection.
TPair MakePair(int AType) {
  int Fds[2];
  if (socketpair(AF_UNIX, AType, 0, Fds) != 0) ADD_FAILURE() << "socketpair failed";
  return {Fds[0], Fds[1]};
}

bool Readable(int AFd, int ATimeoutMs) {
  pollfd Poll{AFd, POLLIN, 0};
  return poll(&Poll, 1, ATimeoutMs) > 0;
}

// One receive on the peer's end, waiting up to two seconds; "<nothing>" on time-out.
std::string PeerRecv(int AFd) {
  if (!Readable(AFd, 2000)) return "<nothing>";
  char Buf[65536];
  const ssize_t N = recv(AFd, Buf, sizeof Buf, 0);
  return N < 0 ? "<error>" : std::string(Buf, static_cast<size_t>(N));
}

void PeerSend(int AFd, const std::string& AData) {
  ASSERT_EQ(send(AFd, AData.data(), AData.size(), MSG_NOSIGNAL), static_cast<ssize_t>(AData.size()));
}

// Everything the link can deliver now, byte by byte, as the door runtime takes it.
std::string DrainDoor() {
  std::string Got;
  while (CommCharAvail()) Got += static_cast<char>(CommReadChar());
  return Got;
}

// Opens the link on a fresh pair and takes the announcements off the peer's end.
TPair OpenLink(int AType) {
  TPair Pair = MakePair(AType);
  CommOpen(Pair.Door);
  std::string Got;
  while (Got.size() < ANNOUNCEMENTS.size() && Readable(Pair.Peer, 2000)) Got += PeerRecv(Pair.Peer);
  EXPECT_EQ(Got, ANNOUNCEMENTS);
  return Pair;
}

}  // namespace

TEST(CommOpen, AnnouncesBinaryThenEchoAsTwoSeparateSends) {
  InChild([] {
    TPair Pair = MakePair(SOCK_SEQPACKET);
    EXPECT_EQ(CommHandle(), -1);
    CommOpen(Pair.Door);
    EXPECT_EQ(CommHandle(), Pair.Door);
    EXPECT_EQ(PeerRecv(Pair.Peer), "\xFF\xFB\x00"s);
    EXPECT_EQ(PeerRecv(Pair.Peer), "\xFF\xFB\x01"s);
    EXPECT_FALSE(Readable(Pair.Peer, 50)) << "nothing beyond the two announcements";
    EXPECT_TRUE(CommCarrier());
  });
}

TEST(CommOpen, MakesAnInheritedNonBlockingSocketBlockingAndSendsWaitBoundedForTheCaller) {
  // However the descriptor came, a slow caller still receives every byte, in order. A caller
  // who then takes nothing for the stall bound counts as gone: the rest is dropped, and so is
  // every later send, even once there is room again.
  InChild([] {
    setenv("WICKET_WRITE_STALL_MS", "2000", 1);
    TPair Pair = MakePair(SOCK_STREAM);
    fcntl(Pair.Door, F_SETFL, fcntl(Pair.Door, F_GETFL) | O_NONBLOCK);
    CommOpen(Pair.Door);
    EXPECT_EQ(fcntl(Pair.Door, F_GETFL) & O_NONBLOCK, 0);
    std::string Big(1 << 20, 'x');
    for (size_t I = 0; I < Big.size(); I += 4099) Big[I] = static_cast<char>('a' + I % 26);
    std::string Got;
    std::thread Reader([&] {
      while (Got.size() < ANNOUNCEMENTS.size() + Big.size() && Readable(Pair.Peer, 5000)) {
        Got += PeerRecv(Pair.Peer);
        usleep(200);
      }
    });
    CommWrite(Big);
    Reader.join();
    EXPECT_TRUE(Got == ANNOUNCEMENTS + Big) << Got.size() << " bytes";
    EXPECT_TRUE(CommCarrier());

    CommWrite(Big);
    EXPECT_FALSE(CommCarrier());
    while (Readable(Pair.Peer, 0)) PeerRecv(Pair.Peer);
    CommWrite("more");
    EXPECT_FALSE(Readable(Pair.Peer, 200));
  });
}

TEST(CommOpen, NeverTouchesTheCarrierWhateverTheDescriptor) {
  // Numbers that are not open, up to ones no descriptor set could hold: the link reads
  // nothing and keeps the carrier, as with a quiet caller.
  for (int32_t Number : {-1, 999999, INT32_MAX}) {
    InChild([Number] {
      CommOpen(Number);
      CommWrite("hello\xFF");
      EXPECT_FALSE(CommCharAvail()) << Number;
      // Never readable, so the wait lasts its whole time: a key-wait loop around it can't spin.
      const auto Start = std::chrono::steady_clock::now();
      EXPECT_FALSE(CommWaitForData(20)) << Number;
      EXPECT_GE(std::chrono::steady_clock::now() - Start, std::chrono::milliseconds(19)) << Number;
      EXPECT_TRUE(CommCarrier()) << Number;
      CommClose(false);
      CommClose(true);
    });
  }
}

TEST(CommOpen, WorksOnADescriptorAboveTheSelectLimit) {
  InChild([] {
    const int High = FD_SETSIZE + 476;
    rlimit Limit{};
    getrlimit(RLIMIT_NOFILE, &Limit);
    Limit.rlim_cur = std::max<rlim_t>(Limit.rlim_cur, std::min<rlim_t>(Limit.rlim_max, High + 1));
    setrlimit(RLIMIT_NOFILE, &Limit);
    TPair Pair = MakePair(SOCK_STREAM);
    if (dup2(Pair.Door, High) != High) GTEST_SKIP() << "cannot raise the descriptor limit";
    close(Pair.Door);
    CommOpen(High);
    EXPECT_EQ(PeerRecv(Pair.Peer), ANNOUNCEMENTS);
    PeerSend(Pair.Peer, "hi");
    EXPECT_TRUE(CommWaitForData(2000));
    EXPECT_EQ(DrainDoor(), "hi");
    close(Pair.Peer);
    EXPECT_FALSE(CommCharAvail());
    EXPECT_FALSE(CommCarrier());
  });
}

TEST(CommOpen, ANonSocketSwallowsOutputAndLosesCarrierOnFirstInput) {
  InChild([] {
    int Pipe[2];
    ASSERT_EQ(pipe(Pipe), 0);
    CommOpen(Pipe[0]);
    CommWrite("vanishes");
    EXPECT_FALSE(CommCharAvail());
    EXPECT_TRUE(CommCarrier()) << "nothing shows the fault until input arrives";
    ASSERT_EQ(write(Pipe[1], "k", 1), 1);
    EXPECT_FALSE(CommCharAvail());
    EXPECT_FALSE(CommCarrier());
  });
}

// Each write is one send; only CommWrite doubles 0xFF, and nothing translates line ends. Empty
// and non-positive writes send nothing, not even an empty record.
TEST(CommWrite, EachWriteIsOneSendAndOnlyCommWriteDoublesIac) {
  const auto Block = [](std::string_view AText) { CommWriteBlock(AText.data(), int32_t(AText.size())); };
  const struct {
    void (*Write)(std::string_view);
    std::string Text;
    std::string Wire;
  } Cases[] = {
      {CommWrite, "a\0\r\n\n\xFE\xFF\xFF!"s, "a\0\r\n\n\xFE\xFF\xFF\xFF\xFF!"s},
      {CommWriteRaw, "A\xFF\xFD\x01", "A\xFF\xFD\x01"},
      {Block, "A\xFF\xFD\x01", "A\xFF\xFD\x01"},
  };
  InChild([&Cases] {
    TPair Pair = OpenLink(SOCK_SEQPACKET);
    CommWrite("");
    CommWriteRaw("");
    CommWriteBlock("abc", 0);
    CommWriteBlock("abc", -5);
    for (const auto& C : Cases) {
      C.Write(C.Text);
      EXPECT_EQ(PeerRecv(Pair.Peer), C.Wire) << testing::PrintToString(C.Text);
    }
  });
}

TEST(CommReceive, NormalisesLineEndsWithinEachBlockOnly) {
  // Each inner string is one block as the caller's side sent it. Telnet replies reach the door
  // as plain bytes.
  const std::string Telnet = "\xFF\xFD\x01\xFF\xFF";
  struct TCase {
    std::vector<std::string> Blocks;
    std::string Delivered;
  } Cases[] = {{{"A\r\nB"}, "A\rB"},     {{"\r\0"s}, "\r"},
               {{"\0"s}, "\0"s},         {{"\n\r"}, "\r\r"},
               {{"\r\n\n"}, "\r\r"},     {{"\r\n\0"s}, "\r"},
               {{"\r\0\n"s}, "\r\r"},    {{"\r\r\n"}, "\r\r"},
               {{"\r", "\0"s}, "\r\0"s}, {{"x\r", "\n", "y\n"}, "x\r\ry\r"},
               {{Telnet}, Telnet}};
  for (const auto& C : Cases) {
    InChild([&C] {
      TPair Pair = OpenLink(SOCK_SEQPACKET);
      for (const auto& Block : C.Blocks) PeerSend(Pair.Peer, Block);
      std::string Got;
      while (Got.size() < C.Delivered.size() && CommWaitForData(2000)) Got += DrainDoor();
      EXPECT_EQ(Got, C.Delivered) << testing::PrintToString(C.Blocks);
      EXPECT_FALSE(CommCharAvail());
      EXPECT_TRUE(CommCarrier());
    });
  }
}

TEST(CommReceive, TakesAtMost1024BytesPerReceive) {
  // One 1025-byte send: the CR at 1024 and the LF behind it land in different receives.
  InChild([] {
    TPair Pair = OpenLink(SOCK_STREAM);
    PeerSend(Pair.Peer, std::string(1023, 'a') + "\r\n");
    ASSERT_TRUE(CommWaitForData(2000));
    EXPECT_EQ(DrainDoor(), std::string(1023, 'a') + "\r\r");
  });
}

// Sending to a caller who has gone neither kills the process (SIGPIPE) nor drops the carrier;
// the carrier drops only when an empty buffer finds the peer closed, and never comes back.
TEST(CommCarrier, DropsOnlyWhenAnEmptyBufferFindsThePeerClosed) {
  InChild([] {
    TPair Pair = OpenLink(SOCK_STREAM);
    PeerSend(Pair.Peer, "A");
    close(Pair.Peer);
    CommWrite("anyone there?");
    CommWriteRaw("\xFF\xFB\x01");
    EXPECT_TRUE(CommCharAvail());
    EXPECT_EQ(CommReadChar(), 'A');
    EXPECT_TRUE(CommCarrier());
    EXPECT_FALSE(CommCharAvail());
    EXPECT_FALSE(CommCarrier());
    EXPECT_FALSE(CommWaitForData(0));
    EXPECT_FALSE(CommCarrier());
  });
}

// Without disconnect the close leaves the BBS's own copy of the connection usable (and a second
// close on the exit path is harmless); with disconnect the caller sees the end of the stream.
TEST(CommClose, EndsTheConnectionOnlyWhenAskedTo) {
  InChild([] {
    TPair Pair = MakePair(SOCK_STREAM);
    const int DoorCopy = dup(Pair.Door);
    CommOpen(DoorCopy);
    EXPECT_EQ(PeerRecv(Pair.Peer), ANNOUNCEMENTS);
    CommClose(false);
    EXPECT_EQ(fcntl(DoorCopy, F_GETFD), -1) << "the door's own hold is gone";
    CommClose(false);
    PeerSend(Pair.Peer, "to bbs");
    EXPECT_EQ(PeerRecv(Pair.Door), "to bbs");
    PeerSend(Pair.Door, "to caller");
    EXPECT_EQ(PeerRecv(Pair.Peer), "to caller");

    CommOpen(dup(Pair.Door));
    EXPECT_EQ(PeerRecv(Pair.Peer), ANNOUNCEMENTS);
    CommClose(true);
    EXPECT_EQ(PeerRecv(Pair.Peer), "");
  });
}

TEST(CommWaitForData, SleepsUntilInputArrivesOrTheTimeOutPasses) {
  InChild([] {
    TPair Pair = OpenLink(SOCK_STREAM);
    EXPECT_FALSE(CommWaitForData(20));
    EXPECT_TRUE(CommCarrier());
    std::thread Caller([&Pair] {
      usleep(50000);
      PeerSend(Pair.Peer, "Nq");
    });
    EXPECT_TRUE(CommWaitForData(-1));
    Caller.join();
    EXPECT_EQ(CommPeekChar(), 'N') << "a peek leaves the byte";
    EXPECT_EQ(CommReadChar(), 'N');
    close(Pair.Peer);
    EXPECT_TRUE(CommWaitForData(0)) << "a buffered byte answers without looking at the socket";
    EXPECT_EQ(CommPeekChar(), 'q');
    EXPECT_EQ(CommReadChar(), 'q');
    EXPECT_FALSE(CommWaitForData(5000));
    EXPECT_FALSE(CommCarrier());
  });
}
