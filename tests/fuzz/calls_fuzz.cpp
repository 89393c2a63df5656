// calls_fuzz.cpp - sequences of exported calls with live, stale, foreign, null and
// wrong-class handles: a good call succeeds, a bad one is refused in one line and
// changes nothing.
//
// Each call takes four bytes: which one, its handle, the other handle, and how long
// its text is. No frame is empty: the wire cannot tell one at the end of a message from
// a message of its own.
#include <czmq.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "calls.h"
#include "fuzz/check.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

// Sends back what comes. It makes no object of the library: a stale handle could
// mean one that belongs to the actor.
void RawEcho(j_sock_t* sock, void*) {
  unsigned char byte = 0x80;
  std::size_t count = 0;
  do {
    sock->WriteBlocking(&byte, 1, count);
  } while (sock->ReadBlocking(&byte, 1, count) == 0);
}

struct Stream {
  JCXXSock* sock = nullptr;
  bool lent = false;             // by an actor
  std::deque<int> pending = {};  // the shapes of the messages on their way to its reader
};

struct Object {
  char kind;                                 // as in calls.h
  std::shared_ptr<Stream> stream = nullptr;  // of a sock or an actor
};

// A signal's value, or how many frames there are.
int Shape(void* handle) {
  auto* msg = static_cast<JCXXMsg*>(handle);
  const int signal = j_msg_signal(msg);
  return signal >= 0 ? -1 - signal : static_cast<int>(msg->GetFrameList().size());
}

class Session {
 public:
  void Run(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kCount = std::size(calls::kCalls);
    for (; size >= 4 && handles_.size() < 200; data += 4, size -= 4) {
      const std::size_t which = data[0] % (kCount + 3);
      if (which < kCount) {
        Try(calls::kCalls[which], Pick(data[1]), Pick(data[2]), data[3]);
      } else {
        Make(which - kCount);
      }
    }
    for (const calls::Call& call : calls::kCalls) {
      const bool destroys = std::string_view(call.name).ends_with("_destroy");
      for (std::size_t i = 0; destroys && i < handles_.size(); ++i) {
        Try(call, handles_[i], nullptr, 0);
      }
    }
    CHECK(live_.empty());
    zloop_destroy(&loop_);
  }

 private:
  void* Pick(std::size_t number) { return handles_[number % handles_.size()]; }

  void Keep(void* made, Object object) {
    CHECK(made != nullptr && live_.emplace(made, std::move(object)).second);
    handles_.push_back(made);
  }

  void Make(std::size_t kind) {
    static const support::RunDirectory run;
    const auto stream = std::make_shared<Stream>();
    if (kind == 0) {
      Keep(j_msg_new(), {'m'});
    } else if (kind == 1 && actors_ < 2) {
      ++actors_;
      JCXXActor* actor = j_actor_new(RawEcho, nullptr);
      *stream = {j_actor_sock(actor), true};
      Keep(actor, {'a', stream});
      Keep(stream->sock, {'s', stream});
    } else {
      stream->sock = j_pipe_new_pull(("ipc://" + std::to_string(handles_.size())).c_str());
      Keep(stream->sock, {'s', stream});
    }
  }

  bool Fits(char takes, void* handle) const {
    const auto found = live_.find(handle);
    return found != live_.end() && calls::Fits(takes, found->second.kind);
  }

  // Whether an old handle has become the address of an object that the library owns:
  // it would be taken for it, as the interface says.
  bool BelongsToTheLibrary(void* handle) {
    JCXXActorAPI* api = JCXXActorAPI::GetInstance();
    const std::lock_guard<std::mutex> lock(api->mutex);
    return live_.count(handle) == 0 && (api->frames.count(static_cast<JCXXFrame*>(handle)) != 0 ||
                                        api->socks.count(static_cast<JCXXSock*>(handle)) != 0);
  }

  void Try(const calls::Call& call, void* handle, void* other, std::uint8_t value) {
    const std::string_view name = call.name;
    const bool sends = name == "j_msg_send";
    calls::Rest rest = {static_cast<JCXXMsg*>(other), static_cast<JCXXSock*>(other), loop_,
                        std::string(1U + value, 't'), value};
    support::ClearLog();
    support::KeepLog(support::kErrors);
    if (sends && call.takes == 'e') {
      return;  // the other one does as well
    }
    if (Fits(call.takes, handle) && (!sends || Fits('e', other))) {
      Use(call, handle, live_.at(sends ? other : handle).stream, rest);
    } else if (!BelongsToTheLibrary(handle) && !BelongsToTheLibrary(other)) {
      CHECK(call.fails(nullptr, handle, rest));
      CHECK(rest.left == (name.ends_with("_destroy") ? nullptr : handle));
      const bool silent = handle == nullptr || (sends && other == nullptr);
      CHECK(support::LogLines().size() == (silent ? 0U : 1U));
    }
  }

  // A call on good handles, unless it would block or end what an actor has lent.
  void Use(const calls::Call& call, void* handle, const std::shared_ptr<Stream> stream,
           calls::Rest& rest) {
    const std::string_view name = call.name;
    const bool ends = name.ends_with("_destroy");
    const bool sends = name == "j_msg_send";
    const int shape = call.takes == 'm' ? Shape(handle) : 0;
    const int change = name.starts_with("j_msg_add") - name.starts_with("j_msg_pop");
    if ((name == "j_msg_recv" && stream->pending.empty()) || (change > 0 && shape == 20) ||
        ((sends || name == "j_sock_signal") && stream->pending.size() == 3) ||
        (name == "j_sock_destroy" && stream->lent)) {
      return;
    }
    if (ends && stream != nullptr) {
      hybrid_zloop_reader_end(loop_, stream->sock);
      live_.erase(stream->sock);
    }
    const bool should_fail = ends || name == "hybrid_zloop_reader_end" ||
                             name == "j_sock_buffered" || (name == "j_msg_signal" && shape >= 0) ||
                             (change > 0 && shape < 0) || (change < 0 && shape <= 0);
    const bool failed = call.fails(nullptr, handle, rest);
    CHECK(failed == should_fail || (name == "j_sock_buffered" && !stream->pending.empty()));
    CHECK(rest.left == (ends || sends ? nullptr : handle));
    CHECK(ends || support::LogLines().empty());  // an actor that is ended may fail to answer
    if (rest.left == nullptr) {
      live_.erase(handle);
    } else if (call.takes == 'm') {
      CHECK(Shape(handle) == (failed ? shape : shape + change));
    }
    if (failed) {
      return;
    }
    if (name == "j_msg_popstr") {
      std::free(rest.made);
    } else if (name == "j_msg_pop") {
      Keep(rest.made, {'f'});
    } else if (sends) {
      stream->pending.push_back(shape);
    } else if (name == "j_sock_signal") {
      stream->pending.push_back(-1 - rest.value);
    } else if (name == "j_msg_recv") {
      CHECK(Shape(rest.made) == stream->pending.front());
      Keep(rest.made, {'m'});
      stream->pending.pop_front();
    } else {
      CHECK(name != "j_actor_sock" || rest.made == stream->sock);
    }
  }

  int actors_ = 0;
  zloop_t* loop_ = zloop_new();
  std::vector<void*> handles_ = {nullptr, &actors_, this, loop_};  // dead ones stay
  std::map<void*, Object> live_;
};

void Prepare() {
  std::thread([] {}).join();  // a sanitizer's own thread starts with the first one
  std::signal(SIGPIPE, SIG_IGN);
  struct sigaction clock;  // libFuzzer's: an interrupted read would be a line
  CHECK(::sigaction(SIGALRM, nullptr, &clock) == 0);
  clock.sa_flags |= SA_RESTART;
  CHECK(::sigaction(SIGALRM, &clock, nullptr) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = (Prepare(), true);
  CHECK(ready);
  const support::Census before = support::TakeCensus();
  Session().Run(data, size);
  CHECK(support::LeftSince(before).empty());
  return 0;
}
