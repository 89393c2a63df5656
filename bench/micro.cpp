// micro.cpp - micro-benchmarks of the library's own steps: the header codec, the
// registry under several threads, the read step and the gathered write.
#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxsock.h"

namespace {

void BM_BuildHeader(benchmark::State& state) {
  JCXXFrame frame;
  frame.SetSize(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    if (frame.BuildHeaderInFive() != 0) {
      state.SkipWithError("BuildHeaderInFive failed");
    }
    benchmark::DoNotOptimize(frame.header);
  }
}
// One size for each form of the header.
BENCHMARK(BM_BuildHeader)->Arg(0)->Arg(32)->Arg(1024)->Arg(JACTOR_MAX_SIZE);

void BM_BuildSignalHeader(benchmark::State& state) {
  JCXXFrame frame(static_cast<unsigned char>(state.range(0)));
  for (auto _ : state) {
    if (frame.BuildHeaderInFive() != 0) {
      state.SkipWithError("BuildHeaderInFive failed");
    }
    benchmark::DoNotOptimize(frame.header);
  }
}
BENCHMARK(BM_BuildSignalHeader)->Arg(0)->Arg(255);

// Handles that the registry takes for messages: it never dereferences them. Each thread
// has its own.
JCXXMsg* Handle(int thread, std::size_t number) {
  static std::array<std::array<std::max_align_t, 64>, 8> objects;
  return reinterpret_cast<JCXXMsg*>(&objects.at(static_cast<std::size_t>(thread)).at(number));
}

// An object's life: it enters, is looked up four times, and leaves.
void BM_RegistryLife(benchmark::State& state) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  std::size_t number = 0;
  for (auto _ : state) {
    JCXXMsg* handle = Handle(state.thread_index(), number++ % 64);
    api->JCXXMsgPtrAdd(handle);
    for (int i = 0; i < 4; ++i) {
      if (!api->JCXXMsgPtrIsValid(handle)) {
        state.SkipWithError("a handle is missing");
      }
    }
    api->JCXXMsgPtrRemove(handle);
  }
}
BENCHMARK(BM_RegistryLife)->ThreadRange(1, 8)->UseRealTime();

// Looking up one long-lived object: a sock or an actor.
void BM_RegistryValid(benchmark::State& state) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  const auto sock = std::make_unique<SockFromPipes>();
  for (auto _ : state) {
    if (!api->JCXXSockPtrIsValid(sock.get())) {
      state.SkipWithError("a handle is missing");
    }
  }
}
BENCHMARK(BM_RegistryValid)->ThreadRange(1, 8)->UseRealTime();

struct Pair {
  Pair() {
    const auto ends = SockFromPipes::MakeSockPairFromPipes();
    a.reset(std::get<0>(ends));
    b.reset(std::get<1>(ends));
  }
  std::unique_ptr<JCXXSock> a;
  std::unique_ptr<JCXXSock> b;
};

// Reads 8 KiB in steps of the given size, mostly out of the read-ahead buffer; the
// time of the write that provides them is not counted.
void BM_ReadSteps(benchmark::State& state) {
  constexpr std::size_t kBytes = 8192;
  const auto step = static_cast<std::size_t>(state.range(0));
  const Pair pair;
  std::vector<unsigned char> bytes(kBytes);
  for (auto _ : state) {
    state.PauseTiming();
    std::size_t done = 0;
    if (pair.a->WriteBlocking(bytes.data(), bytes.size(), done) != 0) {
      state.SkipWithError("WriteBlocking failed");
    }
    state.ResumeTiming();
    for (std::size_t at = 0; at < kBytes; at += step) {
      if (pair.b->ReadBlocking(bytes.data() + at, step, done) != 0) {
        state.SkipWithError("ReadBlocking failed");
      }
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBytes));
}
BENCHMARK(BM_ReadSteps)->Arg(1)->Arg(32)->Arg(1024)->Arg(8192);

// A gathered write of the given number of entries of 64 bytes, and the read that makes
// room for the next.
void BM_GatheredWrite(benchmark::State& state) {
  const auto entries = static_cast<std::size_t>(state.range(0));
  const Pair pair;
  std::vector<unsigned char> bytes(entries * 64);
  std::vector<iovec> list;
  for (std::size_t i = 0; i < entries; ++i) {
    list.push_back({bytes.data() + i * 64, 64});
  }
  for (auto _ : state) {
    std::size_t done = 0;
    if (pair.a->WriteBlockingIOV(list.data(), static_cast<int>(entries), done) != 0 ||
        pair.b->ReadBlocking(bytes.data(), bytes.size(), done) != 0) {
      state.SkipWithError("the transfer failed");
    }
  }
}
BENCHMARK(BM_GatheredWrite)->Arg(1)->Arg(2)->Arg(16)->Arg(128)->Arg(512);

}  // namespace

BENCHMARK_MAIN();
