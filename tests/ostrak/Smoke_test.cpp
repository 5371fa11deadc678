#include <gtest/gtest.h>
#include "ostrak/Ostrak.hpp"
TEST(Smoke, builds) { SUCCEED(); }
