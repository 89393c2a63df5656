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
#include <sys/uio.h>

#include <climits>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "jcxxsock.h"

namespace support {

// The log

constexpr int kErrors = 2;  // failures and caught exceptions
constexpr int kAll = 9;     // trace lines too

struct LogLine {
  int level;
  std::string format;  // as the library gave it
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
  kPthreadCreate,
  kNew,  // every operator new
  kCount
};

// What one intercepted call does. `before` runs first, whatever the kind is.
struct Step {
  enum Kind { kPass, kFail, kReturn, kCut } kind = kPass;
  long value = 0;  // kFail: the errno; kReturn: the result; kCut: the most bytes
  std::function<void()> before = nullptr;
};
Step Pass(std::function<void()> before = nullptr);
Step Fail(int error);         // -1 and errno; operator new throws std::bad_alloc
Step Return(long value);      // without the real call
Step Cut(std::size_t bytes);  // the real call, for at most so many bytes

// While it lives, the intercepted calls of the kinds in `calls` take one step
// each from `steps`, in order, and `rest` when these are used up; calls made by
// `before` and inside this file pass. One script per kind of call at a time.
class Script {
 public:
  explicit Script(std::initializer_list<Call> calls, std::vector<Step> steps = {}, Step rest = {},
                  bool this_thread_only = false);
  explicit Script(Call call, std::vector<Step> steps = {}, Step rest = {})
      : Script({call}, std::move(steps), std::move(rest)) {}
  Script(Script const&) = delete;
  Script& operator=(Script const&) = delete;
  ~Script();

  std::size_t count() const;  // calls intercepted so far

  // The entries given to each writev.
  const std::vector<std::vector<iovec>>& gathered() const { return gathered_; }

 private:
  friend class Interceptor;
  std::vector<Call> calls_;
  std::vector<Step> steps_;
  Step rest_;
  int thread_;  // the only thread it applies to, or 0
  std::size_t count_ = 0;
  std::vector<std::vector<iovec>> gathered_;
};

// While it lives, paths that begin with /var/run/jactor lead below a temporary
// folder, for every call of the library. The directory itself is not made.
class RunDirectory {
 public:
  RunDirectory();
  RunDirectory(RunDirectory const&) = delete;
  RunDirectory& operator=(RunDirectory const&) = delete;
  ~RunDirectory();

  // The real place of the run directory, or of a file in it.
  std::string path(const std::string& name = "") const;

 private:
  std::string folder_;
  std::string directory_;
};

// An endpoint name that nobody else uses, without direction prefix; the FIFO in
// the run directory is unlinked at the end.
class UniqueEndpoint {
 public:
  explicit UniqueEndpoint(const std::string& transport = "ipc");
  UniqueEndpoint(UniqueEndpoint const&) = delete;
  UniqueEndpoint& operator=(UniqueEndpoint const&) = delete;
  ~UniqueEndpoint();

  std::string name;  // "ipc://test/4711/1"
  std::string fifo;  // its file
};

// Leaks

// Open descriptors, threads and registered objects of this process.
struct Census {
  std::map<int, std::string> descriptors;
  std::size_t threads;
  std::size_t objects;
};
Census TakeCensus();

// What is there now and was not in `before`, or an empty string. Waits a moment
// for joined threads to leave the process table.
std::string LeftSince(const Census& before);

// Fails a test that leaves something behind, or logs a line of another form than
// the common one. Ignores SIGPIPE and starts with an empty log.
class Test : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  Census before_;
};

// Two connected socks: what `a` writes, `b` reads. Made and destroyed by the
// fixture.
class PairTest : public Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Puts bytes on the way from `a` to `b`, without the library.
  void Feed(const std::string& bytes);

  // Takes all that is on that way, the read-ahead buffer of `b` first.
  std::string Drain();

  std::unique_ptr<JCXXSock> a;
  std::unique_ptr<JCXXSock> b;
};

// The bytes written as hexadecimal digits; blanks are skipped.
std::string Bytes(const std::string& hex);

}  // namespace support

#endif
