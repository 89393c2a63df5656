// endpoint_test.cpp - endpoint names, and the FIFO behind a name whatever stands
// in its place.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

using namespace support;
namespace fs = std::filesystem;

constexpr const char* kOpen = "NewSockFromNamedEndpoint";

class EndpointTest : public support::Test {
 protected:
  RunDirectory run;
};

using Owned = std::unique_ptr<JCXXSock>;

void MakeFile(const std::string& path) { std::ofstream(path) << "in the way"; }

void MakeFifo(const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }

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
    const char *direction, *transport, *path, *file;
  } kNames[] = {
      {"@ipc://a/b", true, "user requested a pull sock and specified pull with @; ", "ipc", "a/b",
       "Jipc_a_b"},
      {">ipc://a_b", true, "user requested a pull sock but specified push with >; ", "ipc", "a_b",
       "Jipc_a_b"},
      {"@inproc://a\\b", false, "user requested a push sock but specified pull with @; ", "inproc",
       "a\\b", "Jinproc_a_b"},
      {">ipc://a://b", false, "user requested a push sock and specified push with >; ", "ipc",
       "a://b", "Jipc_a:__b"},
      {"inproc://x", true, "", "inproc", "x", "Jinproc_x"},
  };
  for (const auto& row : kNames) {
    ClearLog();
    fs::remove_all(run.path());
    const Owned sock(row.pull ? j_pipe_new_pull(row.name) : j_pipe_new_push(row.name));
    EXPECT_NE(sock, nullptr);
    const std::string transport = row.transport;
    const std::string file = row.file;
    EXPECT_EQ(Log(kAll, kOpen),
              std::string("splitlist:; s=[") + row.name + "]; " + row.direction + "transport=[" +
                  transport + "]; path=[" + row.path + "]; " + transport + " supported; path=[" +
                  file.substr(2 + transport.size()) + "]; fifopath=[/var/run/jactor/" + file +
                  "]; tmpdir doesn't exist.");
    EXPECT_EQ(fs::status(run.path(file)).permissions(), fs::perms(0666));
    EXPECT_EQ(fs::status(run.path()).permissions(), fs::perms(02777));
  }
}

TEST_F(EndpointTest, AnExistingFifoIsOpenedAsItIs) {
  fs::create_directory(run.path());
  fs::permissions(run.path(), fs::perms(0700));
  MakeFifo(run.path("Jipc_x"));
  const ::mode_t mask = ::umask(027);
  const Owned push(j_pipe_new_push("ipc://x"));
  const Owned other(j_pipe_new_push("inproc://x"));
  EXPECT_EQ(::umask(mask), 027U);
  const Owned pull(j_pipe_new_pull("ipc://x"));
  ASSERT_TRUE(push && other && pull);
  EXPECT_TRUE(Log(kAll, kOpen)
                  .ends_with("tmpdir exists and is a directory.; fifopath exists and is a fifo."));
  EXPECT_EQ(fs::status(run.path()).permissions(), fs::perms(0700));
  EXPECT_EQ(j_sock_signal(push.get(), 200), 0);
  EXPECT_EQ(j_sock_signal(other.get(), 1), 0);
  const std::unique_ptr<JCXXMsg> signal(j_msg_recv(pull.get()));
  EXPECT_EQ(j_msg_signal(signal.get()), 200);
  EXPECT_EQ(::fcntl(j_sock_fd(pull.get()), F_GETFD), FD_CLOEXEC);
}

// What stands in the way, the error lines, and whether the endpoint opens.
TEST_F(EndpointTest, ObstaclesAreReplacedOrRefused) {
  const std::string dir = run.path();
  const std::string fifo = run.path("Jipc_x");
  const struct {
    std::function<void()> prepare;
    bool opens;
    const char* log;
  } kObstacles[] = {
      {[&] { fs::remove_all(dir), MakeFile(dir); }, true, "tmpdir exists but is not a directory."},
      {[&] { MakeFile(fifo); }, true, "fifopath exists but is not a fifo."},
      {[&] { fs::create_directory(fifo); }, true, "fifopath exists but is not a fifo."},
      {[&] { fs::create_directory(fifo), MakeFile(fifo + "/x"); }, false,
       "fifopath exists but is not a fifo.; unable to remove non-fifo fifopath"},
      {[&] { MakeFifo(dir + "/y"), fs::create_symlink("y", fifo); }, false, "unable to open fifo"},
      {[&] { fs::create_symlink("nowhere", fifo); }, false, "unable to create fifo"},
  };
  for (const auto& obstacle : kObstacles) {
    fs::remove_all(dir);
    fs::create_directory(dir);
    obstacle.prepare();
    ClearLog();
    const Owned sock(j_pipe_new_pull("ipc://x"));
    EXPECT_EQ(sock != nullptr, obstacle.opens) << obstacle.log;
    EXPECT_EQ(Log(), obstacle.log);
    EXPECT_EQ(obstacle.opens, fs::status(fifo).type() == fs::file_type::fifo &&
                                  fs::symlink_status(fifo).type() == fs::file_type::fifo);
  }
}

// The file changes hands between the look and the opening.
TEST_F(EndpointTest, ALostRaceIsRefusedAndTheNextOpeningSucceeds) {
  const std::string fifo = run.path("Jipc_x");
  {
    const Script script(Call::kOpen, {Pass([&] { fs::remove(fifo), MakeFile(fifo); })});
    EXPECT_EQ(j_pipe_new_push("ipc://x"), nullptr);
    EXPECT_EQ(Log(), "unable to open fifo");
  }
  EXPECT_NE(Owned(j_pipe_new_push("ipc://x")), nullptr);
  fs::remove_all(run.path());
  ClearLog();
  const Script script({Call::kMkdir, Call::kRemove}, {Fail(EEXIST), Fail(EPERM)});
  EXPECT_EQ(j_pipe_new_pull("ipc://x"), nullptr);
  MakeFile(run.path());
  EXPECT_EQ(j_pipe_new_pull("ipc://x"), nullptr);
  EXPECT_EQ(Log(),
            "unable to create tmpdir; tmpdir exists but is not a directory.; unable to remove "
            "non-directory tmpdir");
}

TEST_F(EndpointTest, AFileSystemErrorIsAnExceptionBelowTheCCalls) {
  const std::string name = "ipc://" + std::string(300, 'x');
  EXPECT_THROW(JCXXSock::NewPull(name.c_str()), fs::filesystem_error);
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(j_pipe_new_pull(name.c_str()), nullptr);
  EXPECT_NE(Log(kErrors, "j_pipe_new_pull").find("File name too long"), std::string::npos);
  EXPECT_EQ(LogLines().size(), 1U);
}

}  // namespace
