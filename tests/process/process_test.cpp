// process_test.cpp - what programs that are started inherit, the exit of a process
// that still has library objects, and the environment of the log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "jactor.h"

namespace {

std::string Output(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  std::array<char, 4096> buf;
  while (const std::size_t n = std::fread(buf.data(), 1, buf.size(), pipe)) {
    output.append(buf.data(), n);
  }
  ::pclose(pipe);
  return output;
}

// The output of the other program with a setting before it and, in the last line,
// its exit status.
std::string RunPart(const std::string& arguments, const std::string& setting = "") {
  return Output(setting + " " + PART_COMMAND + arguments + " 2>&1; echo status $?");
}

// Lists with a program of the machine, which an emulator need not run.
TEST(Process, ProgramsInheritNoDescriptor) {
  const std::string name = "ipc://process-test-" + std::to_string(::getpid());
  const std::string before = Output("exec ls /proc/self/fd");
  JCXXSock* sock = j_pipe_new_pull(name.c_str());
  JCXXActor* actor = j_actor_new([](j_sock_t* end, void*) { j_sock_signal(end, 0); }, nullptr);
  EXPECT_TRUE(sock != nullptr && actor != nullptr);
  EXPECT_EQ(Output("exec ls /proc/self/fd"), before);
  j_actor_destroy(&actor);
  j_sock_destroy(&sock);
  ::unlink(("/var/run/jactor/Jipc_" + name.substr(6)).c_str());
}

TEST(Process, AProcessMayExitWithLiveObjectsAndARunningActor) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(RunPart("exit", "JLOG_LEVEL=0"), "exiting\nstatus 0\n");
  }
}

TEST(Process, TheEnvironmentSetsTheThresholdOfTheLog) {
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
