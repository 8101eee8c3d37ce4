#include "ky/kyByteArrayLowFootprint.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using ky::kyByteArrayLowFootprint;

TEST(ByteArray, OrdersNullThenEmptyThenByLengthThenByUnsignedBytes)
{
    std::vector<kyByteArrayLowFootprint> ascending = {kyByteArrayLowFootprint::sNull};
    for (const std::string& text : {std::string(), std::string(1, '\0'), std::string("b"),
                                    std::string("\xFF"), std::string("aa"), std::string("aaa")})
        ascending.emplace_back(text);
    for (std::size_t i = 0; i < ascending.size(); ++i)
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            SCOPED_TRACE(std::to_string(i) + " and " + std::to_string(j));
            const kyByteArrayLowFootprint copy(ascending[j]);
            EXPECT_EQ(ascending[i] < copy, i < j);
            EXPECT_EQ(ascending[i] == copy, i == j);
        }
}

TEST(ByteArray, IsNullEmptyOrFilled)
{
    kyByteArrayLowFootprint array(kyByteArrayLowFootprint::sNull);
    array.resizeAndClear(0, 'x');
    EXPECT_TRUE(array.isNull() && array.isEmpty()) << "kept: the size is 0 already";
    array.clear();
    EXPECT_TRUE(!array.isNull() && array.editRawData() == nullptr && *array.rawData() == '\0');
    array.resizeAndClear(3, 'x');
    EXPECT_STREQ(array.rawData(), "xxx");
}

TEST(ByteArray, TakesItsOwnBytesAndRefusesMoreThanItsLengthCanTell)
{
    kyByteArrayLowFootprint array("0123456789");
    const kyByteArrayLowFootprint& self = array;
    array = self;
    array.setData(array.rawData() + 2, 5);
    EXPECT_THROW(array.setData("never read", 1ul << 32), std::length_error);
    EXPECT_EQ(array.toStringView(), "23456");
}
