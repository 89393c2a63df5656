// endpoint_test.cpp - endpoint names, and the FIFO behind a name whatever stands
// in its place.
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <tuple>

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
  const std::tuple<const char*, const char*, int> kNames[] = {
      {"", "endpoint name too short", EINVAL},
      {"ipc://a,ipc://b", "multiple endpoint names not supported", EINVAL},
      {"abcd", "endpoint name too short", EINVAL},
      {"@ipc:", "bad transport", EINVAL},
      {"ipc://", "bad transport", EINVAL},
      {"://abc", "bad transport", EINVAL},
      {"@@ipc://x", "unrecognized transport not supported", EPROTONOSUPPORT},
      {"tcp://x", "tcp not supported", EPROTONOSUPPORT},
      {"pgm://x", "pgm not supported", EPROTONOSUPPORT},
      {">epgm://x", "epgm not supported", EPROTONOSUPPORT},
  };
  const Script script({Call::kStat, Call::kMkdir, Call::kOpen});
  for (const auto& [name, log, error] : kNames) {
    ClearLog();
    errno = 0;
    EXPECT_EQ(j_pipe_new_pull(name), nullptr);
    EXPECT_EQ(errno, error) << name;
    EXPECT_EQ(Log(), log);
  }
  EXPECT_EQ(script.count(), 0U);
}

TEST_F(EndpointTest, ANameIsSplitWhateverTheResultHeld) {
  EXPECT_EQ(SockFromNamedEndpoint::SplitAtCommas(",a,,b,"),
            (std::list<std::string>{"", "a", "", "b", ""}));
  std::string name = "ipc:/x";
  std::string transport = "old";
  std::string path = "old";
  SockFromNamedEndpoint::SplitLikeURI(name, transport, path);
  EXPECT_EQ(transport + path, "");
}

// The prefix and the direction choose a line, and nothing else.
TEST_F(EndpointTest, AnAcceptedNameIsAFileInTheRunDirectory) {
  using Open = JCXXSock* (*)(const char*);
  const std::tuple<Open, const char*, const char*, const char*> kNames[] = {
      {j_pipe_new_pull, "@ipc://a/b", "Jipc_a_b", "pull sock and specified pull with @"},
      {j_pipe_new_pull, ">ipc://a_b", "Jipc_a_b", "pull sock but specified push with >"},
      {j_pipe_new_push, "@inproc://a\\b", "Jinproc_a_b", "push sock but specified pull with @"},
      {j_pipe_new_push, ">ipc://a://b", "Jipc_a:__b", "push sock and specified push with >"},
      {j_pipe_new_pull, "inproc://x", "Jinproc_x", "fifopath=[/var/run/jactor/Jinproc_x]"},
  };
  for (const auto& [open, name, file, line] : kNames) {
    ClearLog();
    fs::remove_all(dir);
    EXPECT_NE(Owned(open(name)), nullptr);
    EXPECT_NE(Log(kAll).find(line), std::string::npos) << name;
    EXPECT_EQ(fs::status(run.path(file)).permissions(), fs::perms(0666));
    EXPECT_EQ(fs::status(dir).permissions(), fs::perms(02777));
  }
}

TEST_F(EndpointTest, WhatExistsKeepsItsPermissions) {
  fs::create_directory(dir);
  fs::permissions(dir, fs::perms(0700));
  MakeFifo(fifo);
  EXPECT_NE(Owned(j_pipe_new_push("ipc://x")), nullptr);
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(fs::status(dir).permissions(), fs::perms(0700));
  EXPECT_EQ(fs::status(fifo).permissions(), fs::perms(0600));
}

// The reason, or 0 where the endpoint opens, the error lines, what the first call that
// changes something does, and what has happened to a run directory with the FIFO y in it.
TEST_F(EndpointTest, ObstaclesAreReplacedOrRefused) {
  const std::tuple<int, const char*, Step, std::function<void()>> kObstacles[] = {
      {0, "tmpdir exists but is not a directory.", Pass(), [&] { MakeFile(dir); }},
      {0, "fifopath exists but is not a fifo.", Pass(), [&] { MakeFile(fifo); }},
      {0, "fifopath exists but is not a fifo.", Pass(), [&] { fs::create_directory(fifo); }},
      {ENOTEMPTY, "fifopath exists but is not a fifo.; unable to remove non-fifo fifopath", Pass(),
       [&] { fs::create_directories(fifo + "/x"); }},
      {ELOOP, "unable to open fifo", Pass(), [&] { fs::create_symlink("y", fifo); }},
      {EEXIST, "unable to create fifo", Pass(), [&] { fs::create_symlink("nowhere", fifo); }},
      {EEXIST, "unable to open fifo", Pass([&] { MakeFile(fifo); }), [&] { MakeFifo(fifo); }},
      {EMFILE, "unable to open fifo", Fail(EMFILE), [&] { MakeFifo(fifo); }},
      {ENOSPC, "unable to create fifo", Fail(ENOSPC), [] {}},
      {EACCES, "unable to create tmpdir", Fail(EACCES), [&] { fs::remove_all(dir); }},
      {EPERM, "tmpdir exists but is not a directory.; unable to remove non-directory tmpdir",
       Fail(EPERM), [&] { MakeFile(dir); }},
      {EEXIST, "tmpdir exists but is not a directory.; unable to remove non-directory tmpdir",
       Fail(ENOENT), [&] { MakeFile(dir); }},
  };
  for (const auto& [error, log, step, prepare] : kObstacles) {
    SCOPED_TRACE(log);
    fs::remove_all(dir);
    fs::create_directory(dir);
    MakeFifo(dir + "/y");
    prepare();
    ClearLog();
    const Script script({Call::kOpen, Call::kMkdir, Call::kMkfifo, Call::kRemove}, {step});
    errno = 0;
    const Owned sock(j_pipe_new_pull("ipc://x"));
    EXPECT_EQ(errno, error);
    EXPECT_EQ(sock != nullptr, error == 0);
    EXPECT_EQ(Log(), log);
    EXPECT_TRUE(!sock || fs::symlink_status(fifo).type() == fs::file_type::fifo);
  }
}

TEST_F(EndpointTest, AFileSystemErrorIsALine) {
  EXPECT_EQ(j_pipe_new_pull(("ipc://" + std::string(300, 'x')).c_str()), nullptr);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_NE(Log(kErrors, "j_pipe_new_pull").find("File name too long"), std::string::npos);
}

TEST_F(EndpointTest, BytesReadAheadAreLostWithALine) {
  const Owned push(j_pipe_new_push("ipc://x"));
  Owned pull(j_pipe_new_pull("ipc://x"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(j_sock_signal(push.get(), 1), 0);
  }
  EXPECT_NE(std::unique_ptr<JCXXMsg>(pull->Recv()), nullptr);
  pull.reset();
  EXPECT_EQ(Log(kErrors, "~SockFromNamedEndpoint"), "2 bytes read ahead and not received are lost");
}

}  // namespace
