#include "ky/kyByteArrayLowFootprint.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using ky::kyByteArrayLowFootprint;

namespace {
// Read while static objects are made, perhaps before those of the library.
const bool sWasNullAtStart = kyByteArrayLowFootprint::sNull.isNull();
}  // namespace

TEST(ByteArray, OrdersNullThenEmptyThenByLengthThenByUnsignedBytes)
{
    const std::string texts[] = {"", std::string(1, '\0'), "b", "\xFF", "aa", "ab", "aaa"};
    std::vector<kyByteArrayLowFootprint> ascending = {kyByteArrayLowFootprint::sNull};
    for (const std::string& text : texts)
        ascending.emplace_back(text);
    for (std::size_t i = 0; i < ascending.size(); ++i)
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            SCOPED_TRACE(std::to_string(i) + " and " + std::to_string(j));
            const kyByteArrayLowFootprint copy(ascending[j]);
            EXPECT_EQ(ascending[i] < copy, i < j);
            EXPECT_EQ(ascending[i] <= copy, i <= j);
            EXPECT_EQ(ascending[i] > copy, i > j);
            EXPECT_EQ(ascending[i] >= copy, i >= j);
            EXPECT_EQ(ascending[i] == copy, i == j);
            EXPECT_EQ(ascending[i] != copy, i != j);
        }
}

TEST(ByteArray, IsNullEmptyOrFilled)
{
    EXPECT_TRUE(sWasNullAtStart);
    kyByteArrayLowFootprint array(kyByteArrayLowFootprint::sNull);
    array.resizeAndClear(0, 'x');
    EXPECT_TRUE(array.isNull() && array.isEmpty()) << "kept: the size is 0 already";
    array.clear();
    EXPECT_FALSE(array.isNull());
    EXPECT_EQ(array.editRawData(), nullptr);
    EXPECT_STREQ(array.rawData(), "");

    array.resizeAndClear(3, 'x');
    EXPECT_STREQ(array.rawData(), "xxx");
    const char* const block = array.rawData();
    array.resizeAndClear(3, 'y');
    EXPECT_EQ(array.rawData(), block) << "same size, same block";
    array.editRawData()[1] = '\0';
    std::vector<char> bytes = {'o', 'l', 'd', '!'};
    array.toByteVector(bytes);
    EXPECT_EQ(bytes, (std::vector<char>{'y', '\0', 'y'}));

    kyByteArrayLowFootprint moved(std::move(array));
    EXPECT_TRUE(array.isEmpty() && !array.isNull());  // NOLINT(bugprone-use-after-move)
    array.setToNull();
    moved = std::move(array);
    EXPECT_TRUE(moved.isNull());
}

TEST(ByteArray, TakesItsOwnBytesAndRefusesMoreThanItsLengthCanTell)
{
    kyByteArrayLowFootprint array("0123456789");
    const kyByteArrayLowFootprint& self = array;
    array = self;
    array.setData(array.rawData() + 2, 5);
    EXPECT_EQ(array.toStringView(), "23456");
    EXPECT_THROW(array.setData("never read", 1ul << 32), std::length_error);
    EXPECT_THROW(array.resizeAndClear(1ul << 32, 'x'), std::length_error);
    EXPECT_EQ(array.toStringView(), "23456");
}
