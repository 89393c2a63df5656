// support.h - what the tests share: the captured log, scripted system calls, a
// run directory of the test's own, and a fixture that finds what a test leaves
// behind.
//
// A test program that links jactor_test_support replaces jlog_printf, operator
// new and a number of libc calls for every library in the process. Without a
// script they do what they always do.
#ifndef JACTOR_TESTS_SUPPORT_H
#define JACTOR_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "jcxxsock.h"

namespace support {

// The log

constexpr int kErrors = 2;  // failures and caught exceptions
constexpr int kAll = 9;     // trace lines too

struct LogLine {
  int level;
  std::string function;
  std::string text;  // formatted, without the prefix and the newline
};

// The lines logged since ClearLog, in order, or their texts, of all functions or
// of one, joined with "; ". Any thread may log.
void ClearLog();
std::vector<LogLine> LogLines(int max_level = kErrors);
std::string Log(int max_level = kErrors, const std::string& function = "");

// Lines above `level` are dropped from now on; ClearLog keeps all again. errno is
// spoiled in any case.
void KeepLog(int level);

// Scripted calls

enum class Call {
  kRead,
  kReadv,
  kWrite,
  kWritev,
  kIoctl,
  kFcntl,
  kPipe,
  kOpen,
  kMkfifo,
  kMkdir,
  kStat,
  kFstat,
  kRemove,
  kFchmodat,
  kClose,
  kPoll,
  kPthreadCreate,
  kMutexLock,
  kNew,  // every operator new
  kCount
};

// What one intercepted call does: first `before`; then it answers `result`, with
// `error` in errno, or does the real thing for at most `bytes` bytes.
struct Step {
  std::function<void()> before = nullptr;
  std::optional<long> result = std::nullopt;
  int error = 0;
  std::size_t bytes = SSIZE_MAX;
};
inline Step Pass(std::function<void()> before = nullptr) { return {std::move(before)}; }
inline Step Fail(int error) { return {nullptr, -1, error}; }  // new throws std::bad_alloc
inline Step Return(long result) { return {nullptr, result}; }
inline Step Cut(std::size_t bytes) { return {nullptr, std::nullopt, 0, bytes}; }

// While it lives, the intercepted calls of this thread of the kinds in `calls` take
// one step each from `steps`, in order, and `rest` when these are used up; calls made
// by `before` and inside this file pass. One script per kind of call at a time.
class Script {
 public:
  explicit Script(std::initializer_list<Call> calls, std::vector<Step> steps = {}, Step rest = {});
  explicit Script(Call call, std::vector<Step> steps = {}, Step rest = {})
      : Script({call}, std::move(steps), std::move(rest)) {}
  ~Script();

  std::size_t count() const { return count_; }  // calls intercepted so far

 private:
  friend Step Take(Call call);
  const std::vector<Call> calls_;
  const std::vector<Step> steps_;
  const Step rest_;
  std::size_t count_ = 0;
};

// While it lives, paths that begin with /var/run/jactor lead below a temporary
// folder, for every call of the library. The directory itself is not made.
class RunDirectory {
 public:
  RunDirectory();
  RunDirectory(RunDirectory const&) = delete;
  ~RunDirectory();

  // The real place of the run directory, or of a file in it.
  std::string path(const std::string& name = "") const;

 private:
  std::string folder_;
};

// Leaks

// The open descriptors, the threads and the number of registered objects of this
// process, in words, and where each descriptor leads. A file that was open before may
// be renamed by another program.
using Census = std::map<std::string, std::string>;
Census TakeCensus();

// What is there now and was not in `before`, or an empty string. Waits a moment
// for joined threads to leave the process table.
std::string LeftSince(const Census& before);

// Fails a test that leaves something behind, or logs a line of another form than
// the common one. Ignores SIGPIPE and starts with an empty log.
class Test : public testing::Test {
 protected:
  Test();
  ~Test() override;  // after the members of the test's own fixture

 private:
  Census before_;
};

// Two connected socks: what `a` writes, `b` reads.
class PairTest : public Test {
 protected:
  PairTest();

  // Puts bytes on the way from `a` to `b`, without the library.
  void Feed(const std::string& bytes);

  // Takes all that is on that way, the read-ahead buffer of `b` first.
  std::string Drain();

  std::unique_ptr<JCXXSock> a;
  std::unique_ptr<JCXXSock> b;
};

}  // namespace support

#endif
