// calls_fuzz.cpp - sequences of exported calls with live, stale, foreign, null and
// wrong-class handles: a good call succeeds, a bad one is refused in one line and
// changes nothing.
//
// Each call takes four bytes: which one, its handle, the other handle, and how long
// its text is. No frame is empty: the wire cannot tell one at the end of a message from
// a separate message, and messages are counted.
#include <czmq.h>

#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "calls.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "require.h"
#include "support.h"

namespace {

// Sends back what it receives. It makes no object of the library, since a stale handle
// could match an object that belongs to the actor.
void RawEcho(j_sock_t* sock, void*) {
  unsigned char byte = 0x80;
  std::size_t count = 0;
  do {
    sock->WriteBlocking(&byte, 1, count);
  } while (sock->ReadBlocking(&byte, 1, count) == 0);
}

struct Stream {
  JCXXSock* sock = nullptr;
  bool lent = false;  // by an actor
  int pending = 0;    // the messages on their way to its reader
};

struct Object {
  char kind;                                 // as in calls.h
  std::shared_ptr<Stream> stream = nullptr;  // of a sock or an actor
};

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
    Require(live_.empty());
    zloop_destroy(&loop_);
  }

 private:
  void* Pick(std::size_t number) { return handles_[number % handles_.size()]; }

  void Keep(void* made, Object object) {
    Require(made != nullptr && live_.emplace(made, std::move(object)).second);
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

  // Whether an old handle has become the address of an object that the library owns: the
  // library would accept it, as the interface says.
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
      return;  // the row of the message covers it
    }
    if (Fits(call.takes, handle) && (!sends || Fits('e', other))) {
      Use(call, handle, live_.at(sends ? other : handle).stream, rest);
    } else if (!BelongsToTheLibrary(handle) && !BelongsToTheLibrary(other)) {
      Require(call.fails(nullptr, handle, rest));
      Require(rest.left == (name.ends_with("_destroy") ? nullptr : handle));
      const bool silent = handle == nullptr || (sends && other == nullptr);
      Require(support::LogLines().size() == (silent ? 0U : 1U));
    }
  }

  // A call on good handles, unless it would block or destroy a sock that an actor has lent.
  void Use(const calls::Call& call, void* handle, const std::shared_ptr<Stream> stream,
           calls::Rest& rest) {
    const std::string_view name = call.name;
    const bool ends = name.ends_with("_destroy");
    const bool sends = name == "j_msg_send";
    const bool puts = sends || name == "j_sock_signal";
    const bool takes = name == "j_msg_recv";
    const bool full =
        name.starts_with("j_msg_add") && static_cast<JCXXMsg*>(handle)->GetFrameList().size() == 20;
    if (full || (puts && stream->pending == 3) || (takes && stream->pending == 0) ||
        (name == "j_sock_destroy" && stream->lent)) {
      return;
    }
    if (ends && stream != nullptr) {
      hybrid_zloop_reader_end(loop_, stream->sock);
      live_.erase(stream->sock);
    }
    const bool failed = call.fails(nullptr, handle, rest);
    Require(!failed || (!puts && !takes));
    Require(rest.left == (ends || sends ? nullptr : handle));
    Require(ends || support::LogLines().empty());  // an actor may fail to answer while it stops
    if (rest.left == nullptr) {
      live_.erase(handle);
    }
    if (puts || takes) {
      stream->pending += puts ? 1 : -1;
    }
    if (name == "j_msg_popstr") {
      std::free(rest.made);
    } else if (takes || (name == "j_msg_pop" && !failed)) {
      Keep(rest.made, {takes ? 'm' : 'f'});
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
  struct sigaction clock;  // libFuzzer's: an interrupted read would log a line
  Require(::sigaction(SIGALRM, nullptr, &clock) == 0);
  clock.sa_flags |= SA_RESTART;
  Require(::sigaction(SIGALRM, &clock, nullptr) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = (Prepare(), true);
  Require(ready);
  const support::Census before = support::TakeCensus();
  Session().Run(data, size);
  Require(support::LeftSince(before).empty());
  return 0;
}
