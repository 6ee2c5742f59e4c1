// SPDX-License-Identifier: MIT
// Uncontended acquire/release of the library's locks against bare pthread
// mutexes of the same kind.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include "userlock.h"

namespace {

void BM_ExclLock_Baseline(benchmark::State &state) {
   pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
   for (auto _ : state) {
      pthread_mutex_lock(&mutex);
      benchmark::ClobberMemory();
      pthread_mutex_unlock(&mutex);
   }
   pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_ExclLock_Baseline)->Name("BM_ExclLock/baseline");

void BM_ExclLock_Halcyx(benchmark::State &state) {
   MXUserExclLock *lock = MXUser_CreateExclLock("bench", 0);
   for (auto _ : state) {
      MXUser_AcquireExclLock(lock);
      benchmark::ClobberMemory();
      MXUser_ReleaseExclLock(lock);
   }
   MXUser_DestroyExclLock(lock);
}
BENCHMARK(BM_ExclLock_Halcyx)->Name("BM_ExclLock/halcyx");

void BM_RecLock_Baseline(benchmark::State &state) {
   pthread_mutexattr_t attr;
   pthread_mutexattr_init(&attr);
   pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
   pthread_mutex_t mutex;
   pthread_mutex_init(&mutex, &attr);
   pthread_mutexattr_destroy(&attr);
   for (auto _ : state) {
      pthread_mutex_lock(&mutex);
      benchmark::ClobberMemory();
      pthread_mutex_unlock(&mutex);
   }
   pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_RecLock_Baseline)->Name("BM_RecLock/baseline");

void BM_RecLock_Halcyx(benchmark::State &state) {
   MXUserRecLock *lock = MXUser_CreateRecLock("bench", 0);
   for (auto _ : state) {
      MXUser_AcquireRecLock(lock);
      benchmark::ClobberMemory();
      MXUser_ReleaseRecLock(lock);
   }
   MXUser_DestroyRecLock(lock);
}
BENCHMARK(BM_RecLock_Halcyx)->Name("BM_RecLock/halcyx");

}  // namespace
