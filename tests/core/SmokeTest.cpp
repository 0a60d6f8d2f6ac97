#include "identity/SizeOperation.h"
#include <gtest/gtest.h>
TEST(Smoke, Builds) { EXPECT_EQ(SizeOperation::getBytesSizeInString(1024), QStringLiteral("1 KB")); }
