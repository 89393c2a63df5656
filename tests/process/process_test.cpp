// process_test.cpp - two processes over an endpoint, exec, fork, and the exit of a
// process that still has library objects.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "jactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"

namespace {

// Runs the other program with a setting before it; its output and, in the last
// line, its exit status.
std::string RunPart(const std::string& arguments, const std::string& setting = "") {
  const std::string command = setting + " " + PART_COMMAND + arguments + " 2>&1; echo status $?";
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  std::array<char, 4096> buf;
  while (const std::size_t n = std::fread(buf.data(), 1, buf.size(), pipe)) {
    output.append(buf.data(), n);
  }
  ::pclose(pipe);
  return output;
}

// An endpoint that nobody else uses.
class ProcessTest : public testing::Test {
 protected:
  ProcessTest()
      : name("ipc://process-test-" + std::to_string(::getpid())),
        fifo("/var/run/jactor/Jipc_" + name.substr(6)) {}
  ~ProcessTest() override { ::unlink(fifo.c_str()); }
  std::string name;
  std::string fifo;
};

TEST_F(ProcessTest, AMessageReachesAnotherProcess) {
  std::unique_ptr<JCXXSock, void (*)(JCXXSock*)> pull(
      j_pipe_new_pull(name.c_str()), [](JCXXSock* sock) { j_sock_destroy(&sock); });
  ASSERT_NE(pull, nullptr);
  FILE* other = ::popen((PART_COMMAND "push " + name).c_str(), "r");
  for (int i = 0; i < 1000; ++i) {
    const std::unique_ptr<JCXXMsg> msg(j_msg_recv(pull.get()));
    ASSERT_NE(msg, nullptr);
    ASSERT_EQ(msg->GetFrameList().size(), 2U);
    JCXXFrame* number = msg->GetFrameList().back();
    ASSERT_EQ(number->GetSize(), sizeof i);
    EXPECT_EQ(std::memcmp(number->GetData(), &i, sizeof i), 0);
  }
  const std::unique_ptr<JCXXMsg> end(j_msg_recv(pull.get()));
  EXPECT_EQ(j_msg_signal(end.get()), 200);
  EXPECT_EQ(::pclose(other), 0);
}

TEST_F(ProcessTest, AForkedChildTalksToItsParent) {
  JCXXSock* sock = j_pipe_new_pull(name.c_str());
  const ::pid_t child = ::fork();
  if (child == 0) {
    JCXXSock* push = j_pipe_new_push(name.c_str());
    ::_exit(j_sock_signal(push, 9) == 0 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  const std::unique_ptr<JCXXMsg> msg(j_msg_recv(sock));
  EXPECT_EQ(j_msg_signal(msg.get()), 9);
  j_sock_destroy(&sock);
}

TEST_F(ProcessTest, ExecLeavesNoDescriptorOpen) {
  EXPECT_EQ(RunPart("exec " + name), RunPart("list"));
}

TEST_F(ProcessTest, AProcessMayExitWithLiveObjectsAndARunningActor) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(RunPart("exit", "JLOG_LEVEL=0"), "exiting\nstatus 0\n");
  }
}

TEST_F(ProcessTest, TheEnvironmentSetsTheThresholdOfTheLog) {
  const std::string line[] = {"part.cpp.1.Log: level 1\n", "part.cpp.1.Log: level 2\n",
                              "part.cpp.1.Log: level 9\n"};
  EXPECT_EQ(RunPart("log"), line[0] + line[1] + "status 0\n");
  EXPECT_EQ(RunPart("log", "JLOG_LEVEL=0"), "status 0\n");
  EXPECT_EQ(RunPart("log", "JLOG_LEVEL=9"), line[0] + line[1] + line[2] + "status 0\n");
  EXPECT_EQ(RunPart("log", "JLOG_LEVEL=x"),
            "jlog: JLOG_LEVEL is \"x\", not a number from 0 to 9: using 2\n" + line[0] + line[1] +
                "status 0\n");
}

}  // namespace
