#include "ostrak/Ageable.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

using Ostrak::Age;
using Ostrak::Ageable;

TEST(Ageable, AgesOnlyMoveForwardAndConcurrentAdvancesAreDistinct) {
  Ageable older, newer;
  newer.touch();
  EXPECT_TRUE(newer.isYoungerThan(older) && older.isOlderThan(newer));
  Age young = newer.getAge();
  newer.updateAge(older);
  older.updateAge(newer);
  EXPECT_TRUE(newer.getAge() == young && older.getAge() == young);

  constexpr int kThreads = 4, kAdvances = 2000;
  std::vector<std::vector<Age>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kAdvances; ++i) seen[t].push_back(Ageable::advanceGlobalTime());
    });
  for (std::thread& thread : threads) thread.join();
  std::vector<Age> all;
  for (const auto& times : seen) all.insert(all.end(), times.begin(), times.end());
  std::sort(all.begin(), all.end());
  EXPECT_TRUE(std::adjacent_find(all.begin(), all.end()) == all.end());
  EXPECT_GT(all.front(), young);
  EXPECT_EQ(Ageable::getGlobalTime(), all.back());
}
