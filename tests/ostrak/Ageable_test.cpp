#include "ostrak/Ageable.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <thread>
#include <vector>

using Ostrak::Age;
using Ostrak::Ageable;

TEST(Ageable, AgesOnlyMoveForwardOnOneSharedClock) {
  Ageable older;
  Ageable newer;
  EXPECT_EQ(newer.getAge(), Ageable::getGlobalTime());
  newer.touch();
  EXPECT_TRUE(newer.isYoungerThan(older));
  EXPECT_TRUE(older.isOlderThan(newer));
  EXPECT_EQ(Ageable(newer).getAge(), newer.getAge());

  Age young = newer.getAge();
  newer.updateAge(older);
  EXPECT_EQ(newer.getAge(), young);
  older.updateAge(newer);
  EXPECT_EQ(older.getAge(), young);

  // Concurrent advances hand out distinct times.
  constexpr int kThreads = 4;
  constexpr int kAdvances = 2000;
  std::vector<std::vector<Age>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kAdvances; ++i) seen[t].push_back(Ageable::advanceGlobalTime());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<Age> all;
  for (const auto& times : seen) all.insert(all.end(), times.begin(), times.end());
  std::sort(all.begin(), all.end());
  EXPECT_TRUE(std::adjacent_find(all.begin(), all.end()) == all.end());
  EXPECT_GT(all.front(), young);
  EXPECT_EQ(Ageable::getGlobalTime(), all.back());
}
