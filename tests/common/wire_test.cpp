// Bounded copies into fixed wire fields.
#include <gtest/gtest.h>

#include "common/wire.h"

TEST(Wire, CopyStrTerminatesAndZeroFills)
{
    char field[8];
    std::memset(field, 'x', sizeof field);
    wire_set_str(field, "abcdefghijk");
    EXPECT_STREQ(field, "abcdefg");
    wire_set_str(field, "ab");
    EXPECT_STREQ(field, "ab");
    for (size_t i = 2; i < sizeof field; ++i) EXPECT_EQ(field[i], '\0') << i;
    wire_set_str(field, nullptr);
    EXPECT_EQ(field[0], '\0');
}

TEST(Wire, GetStrReadsUnterminatedField)
{
    const char field[4] = {'a', 'b', 'c', 'd'};
    char out[16];
    wire_get_str(out, sizeof out, field, sizeof field);
    EXPECT_STREQ(out, "abcd");
    char small[3];
    wire_get_str(small, sizeof small, field, sizeof field);
    EXPECT_STREQ(small, "ab");
}
