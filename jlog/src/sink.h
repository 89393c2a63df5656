// sink.h - the program's function that takes the lines, if it has set one.
//
// Threads: any thread may call anything here at any time.
#ifndef JLOG_SINK_H
#define JLOG_SINK_H

#include "jlog.h"

// One call of the sink. As long as it lives, jlog_set_sink in another thread waits.
class SinkCall {
 public:
  SinkCall();
  SinkCall(SinkCall const&) = delete;
  ~SinkCall();

  // False when the program has set none, and on a thread that is inside a sink.
  explicit operator bool() const { return sink_ != nullptr; }

  void operator()(int level, int module, const char* line) const {
    sink_(level, module, line, arg_);
  }

 private:
  jlog_sink_fn sink_ = nullptr;
  void* arg_ = nullptr;
  unsigned long change_ = 0;  // the change that set the sink
};

#endif
