#include "latch_peers.h"

#include <pthread.h>

#include <mutex>
#include <shared_mutex>

#ifndef BENCH_ABSL
#define BENCH_ABSL 0
#endif
#ifndef BENCH_TBB
#define BENCH_TBB 0
#endif

#if BENCH_ABSL
#include <absl/synchronization/mutex.h>
#endif
#if BENCH_TBB
#include <oneapi/tbb/queuing_rw_mutex.h>
#include <oneapi/tbb/spin_rw_mutex.h>
#endif

namespace {

constexpr std::size_t kLineBytes = 128;  // a pair of cache lines, which processors fetch together

alignas(kLineBytes) std::mutex g_mutex;
alignas(kLineBytes) std::shared_mutex g_sharedMutex;
alignas(kLineBytes) pthread_spinlock_t g_spinlock = [] {
  pthread_spinlock_t lock;
  ::pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
  return lock;
}();

#if BENCH_ABSL
alignas(kLineBytes) absl::Mutex g_absl;
#endif
#if BENCH_TBB
alignas(kLineBytes) tbb::spin_rw_mutex g_spinRw;
alignas(kLineBytes) tbb::queuing_rw_mutex g_queuingRw;
thread_local tbb::queuing_rw_mutex::scoped_lock t_place;  // in the queue
#endif

constexpr bench::Lock kPeers[] = {
    {"std::mutex", [] { g_mutex.lock(); }, [] { g_mutex.unlock(); }, nullptr, nullptr},
    {"std::shared_mutex", [] { g_sharedMutex.lock(); }, [] { g_sharedMutex.unlock(); },
     [] { g_sharedMutex.lock_shared(); }, [] { g_sharedMutex.unlock_shared(); }},
    {"pthread_spinlock", [] { ::pthread_spin_lock(&g_spinlock); }, [] { ::pthread_spin_unlock(&g_spinlock); }, nullptr,
     nullptr},
#if BENCH_ABSL
    {"absl::Mutex", [] { g_absl.Lock(); }, [] { g_absl.Unlock(); }, [] { g_absl.ReaderLock(); },
     [] { g_absl.ReaderUnlock(); }},
#endif
#if BENCH_TBB
    {"tbb::spin_rw_mutex", [] { g_spinRw.lock(); }, [] { g_spinRw.unlock(); }, [] { g_spinRw.lock_shared(); },
     [] { g_spinRw.unlock_shared(); }},
    {"tbb::queuing_rw_mutex", [] { t_place.acquire(g_queuingRw, true); }, [] { t_place.release(); },
     [] { t_place.acquire(g_queuingRw, false); }, [] { t_place.release(); }},
#endif
};

}  // namespace

namespace bench {

std::span<const Lock> latchPeers() { return kPeers; }

}  // namespace bench
