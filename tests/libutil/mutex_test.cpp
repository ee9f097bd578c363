#include "libutil/mutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

bool LockedElsewhere(pthread_mutex_t *m) {
  bool busy = false;
  std::thread([&] {
    busy = pthread_mutex_trylock(m) != 0;
    if (!busy) pthread_mutex_unlock(m);
  }).join();
  return busy;
}

TEST(MutexTest, WrappersInitialiseUsablePrimitivesAndMutexLockHoldsForItsScope) {
  pthread_mutex_t m;
  pthread_cond_t c;
  EXPECT_EQ(0, kx_thread_mutex_init(&m, nullptr));
  EXPECT_EQ(0, kx_thread_cond_init(&c, nullptr));
  {
    kx::MutexLock lock(&m);
    EXPECT_TRUE(LockedElsewhere(&m));
  }
  EXPECT_FALSE(LockedElsewhere(&m));
  pthread_cond_destroy(&c);
  pthread_mutex_destroy(&m);
}

}  // namespace
