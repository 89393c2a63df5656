// endpoint_test.cpp - endpoint names, and the FIFO behind a name whatever stands
// in its place.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

using namespace support;
namespace fs = std::filesystem;

using Owned = std::unique_ptr<JCXXSock>;

class EndpointTest : public support::Test {
 protected:
  const RunDirectory run;
  const std::string dir = run.path();
  const std::string fifo = run.path("Jipc_x");
};

// A file, in the place of what stands there.
void MakeFile(const std::string& path) {
  fs::remove_all(path);
  std::ofstream(path) << "in the way";
}

void MakeFifo(const std::string& path) { EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0); }

TEST_F(EndpointTest, ARefusedNameTouchesNoFile) {
  const char* const kNames[][2] = {
      {"", "endpoint name too short"},
      {"ipc://a,ipc://b", "multiple endpoint names not supported"},
      {"abcd", "endpoint name too short"},
      {"@ipc:", "bad transport"},
      {"ipc://", "bad transport"},
      {"://abc", "bad transport"},
      {"@@ipc://x", "unrecognized transport not supported"},
      {"tcp://x", "tcp not supported"},
      {"pgm://x", "pgm not supported"},
      {">epgm://x", "epgm not supported"},
  };
  const Script script({Call::kStat, Call::kMkdir, Call::kOpen});
  for (const auto& [name, line] : kNames) {
    ClearLog();
    EXPECT_EQ(j_pipe_new_pull(name), nullptr);
    EXPECT_EQ(Log(), line) << name;
  }
  ClearLog();
  EXPECT_EQ(j_pipe_new_push(nullptr), nullptr);
  EXPECT_EQ(Log(kAll), "");
  EXPECT_EQ(script.count(), 0U);
  EXPECT_EQ(SockFromNamedEndpoint::SplitAtCommas(",a,,b,"),
            (std::list<std::string>{"", "a", "", "b", ""}));
}

// The prefix and the direction choose a line, and nothing else.
TEST_F(EndpointTest, AnAcceptedNameIsAFileInTheRunDirectory) {
  const struct {
    const char* name;
    bool pull;
    const char *file, *line;
  } kNames[] = {
      {"@ipc://a/b", true, "Jipc_a_b", "pull sock and specified pull with @"},
      {">ipc://a_b", true, "Jipc_a_b", "pull sock but specified push with >"},
      {"@inproc://a\\b", false, "Jinproc_a_b", "push sock but specified pull with @"},
      {">ipc://a://b", false, "Jipc_a:__b", "push sock and specified push with >"},
      {"inproc://x", true, "Jinproc_x", "fifopath=[/var/run/jactor/Jinproc_x]"},
  };
  for (const auto& row : kNames) {
    ClearLog();
    fs::remove_all(dir);
    const Owned sock(row.pull ? j_pipe_new_pull(row.name) : j_pipe_new_push(row.name));
    EXPECT_NE(sock, nullptr);
    EXPECT_NE(Log(kAll).find(row.line), std::string::npos) << row.name;
    EXPECT_EQ(fs::status(run.path(row.file)).permissions(), fs::perms(0666));
    EXPECT_EQ(fs::status(dir).permissions(), fs::perms(02777));
  }
}

TEST_F(EndpointTest, AnExistingFifoIsOpenedAsItIs) {
  fs::create_directory(dir);
  fs::permissions(dir, fs::perms(0700));
  MakeFifo(fifo);
  const ::mode_t mask = ::umask(027);
  const Owned push(j_pipe_new_push("ipc://x"));
  EXPECT_EQ(::umask(mask), 027U);
  const Owned pull(j_pipe_new_pull("ipc://x"));
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(fs::status(dir).permissions(), fs::perms(0700));
  EXPECT_EQ(j_sock_signal(push.get(), 200), 0);
  const std::unique_ptr<JCXXMsg> signal(j_msg_recv(pull.get()));
  EXPECT_EQ(j_msg_signal(signal.get()), 200);
  EXPECT_EQ(::fcntl(j_sock_fd(pull.get()), F_GETFD), FD_CLOEXEC);
}

// The error lines, whether the endpoint opens, what the first call that changes
// something does, and what has happened to a run directory with the FIFO y in it.
TEST_F(EndpointTest, ObstaclesAreReplacedOrRefused) {
  const struct {
    const char* log;
    bool opens;
    Step step;
    std::function<void()> prepare;
  } kObstacles[] = {
      {"tmpdir exists but is not a directory.", true, Pass(), [&] { MakeFile(dir); }},
      {"fifopath exists but is not a fifo.", true, Pass(), [&] { MakeFile(fifo); }},
      {"fifopath exists but is not a fifo.", true, Pass(), [&] { fs::create_directory(fifo); }},
      {"fifopath exists but is not a fifo.; unable to remove non-fifo fifopath", false, Pass(),
       [&] { fs::create_directories(fifo + "/x"); }},
      {"unable to open fifo", false, Pass(), [&] { fs::create_symlink("y", fifo); }},
      {"unable to create fifo", false, Pass(), [&] { fs::create_symlink("nowhere", fifo); }},
      {"unable to open fifo", false, Pass([&] { MakeFile(fifo); }), [&] { MakeFifo(fifo); }},
      {"unable to create tmpdir", false, Fail(EEXIST), [&] { fs::remove_all(dir); }},
      {"tmpdir exists but is not a directory.; unable to remove non-directory tmpdir", false,
       Fail(EPERM), [&] { MakeFile(dir); }},
      {"tmpdir exists but is not a directory.; unable to remove non-directory tmpdir", false,
       Fail(ENOENT), [&] { MakeFile(dir); }},
  };
  for (const auto& obstacle : kObstacles) {
    fs::remove_all(dir);
    fs::create_directory(dir);
    MakeFifo(dir + "/y");
    obstacle.prepare();
    ClearLog();
    const Script script({Call::kOpen, Call::kMkdir, Call::kRemove}, {obstacle.step});
    const Owned sock(j_pipe_new_pull("ipc://x"));
    EXPECT_EQ(Log(), obstacle.log);
    EXPECT_EQ(sock != nullptr, obstacle.opens) << obstacle.log;
    EXPECT_TRUE(!sock || fs::symlink_status(fifo).type() == fs::file_type::fifo);
  }
}

TEST_F(EndpointTest, AFileSystemErrorIsALine) {
  const std::string name = "ipc://" + std::string(300, 'x');
  EXPECT_EQ(j_pipe_new_pull(name.c_str()), nullptr);
  EXPECT_NE(Log(kErrors, "j_pipe_new_pull").find("File name too long"), std::string::npos);
  EXPECT_EQ(LogLines().size(), 1U);
}

TEST_F(EndpointTest, BytesReadAheadAreLostWithALine) {
  const Owned push(j_pipe_new_push("ipc://x"));
  Owned pull(j_pipe_new_pull("ipc://x"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(j_sock_signal(push.get(), 1), 0);
  }
  JCXXMsg* msg = j_msg_recv(pull.get());
  j_msg_destroy(&msg);
  pull.reset();
  EXPECT_EQ(Log(), "2 bytes read ahead and not received are lost");
  EXPECT_EQ(LogLines().back().function, "~SockFromNamedEndpoint");
}

TEST_F(EndpointTest, ThreadsThatCreateFifosLeaveTheUmaskAlone) {
  const mode_t before = ::umask(027);
  std::vector<std::jthread> threads;
  for (const std::string letter : {"a", "b"}) {
    threads.emplace_back([this, letter] {
      for (int i = 0; i < 300; ++i) {
        const Owned sock(j_pipe_new_pull(("ipc://" + letter).c_str()));
        fs::remove(run.path("Jipc_" + letter));
      }
    });
  }
  threads.clear();
  EXPECT_EQ(::umask(before), 027U);
}

}  // namespace
