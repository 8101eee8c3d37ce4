#include "ky/kyByteArrayLowFootprint.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <malloc.h>
#include <cstring>

using ky::kyByteArrayLowFootprint;

namespace {

// Read while static objects are made, perhaps before those of the library.
const bool sWasNullAtStart = kyByteArrayLowFootprint::sNull.isNull();

kyByteArrayLowFootprint Filled(const std::string& text)
{
    return kyByteArrayLowFootprint(text);
}

}  // namespace

TEST(ByteArray, OrdersNullThenEmptyThenByLengthThenByUnsignedBytes)
{
    // Built when used: the thread sanitizer runs other static constructors first.
    const kyByteArrayLowFootprint ascending[] = {kyByteArrayLowFootprint::sNull,
                                                 Filled(""),
                                                 Filled(std::string(1, '\0')),
                                                 Filled("b"),
                                                 Filled("\xFF"),
                                                 Filled("aa"),
                                                 Filled("ab"),
                                                 Filled("aaa")};
    for (std::size_t i = 0; i < std::size(ascending); ++i)
        for (std::size_t j = 0; j < std::size(ascending); ++j) {
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
    EXPECT_TRUE(array.isNull() && array.isEmpty() && array.empty());
    array.resizeAndClear(0, 'x');
    EXPECT_TRUE(array.isNull()) << "kept: the size is 0 already";
    EXPECT_EQ(array.editRawData(), nullptr);
    EXPECT_EQ(*array.rawData(), '\0');
    array.clear();
    EXPECT_FALSE(array.isNull());
    EXPECT_EQ(array.editRawData(), nullptr);
    EXPECT_EQ(array.toStringView(), "");

    array.resizeAndClear(3, 'x');
    EXPECT_STREQ(array.constRawData(), "xxx");
    const char* const block = array.rawData();
    array.resizeAndClear(3, 'y');
    EXPECT_EQ(array.rawData(), block) << "same size, same block";
    array.editRawData()[1] = '\0';
    EXPECT_EQ(array.toStringView(), std::string_view("y\0y", 3));
    std::vector<char> bytes = {'o', 'l', 'd', '!'};
    array.toByteVector(bytes);
    EXPECT_EQ(bytes, (std::vector<char>{'y', '\0', 'y'}));
    array.setData("text", 0);
    EXPECT_TRUE(array.isEmpty() && !array.isNull());
    array.setToNull();
    array.setData("text", 4);
    EXPECT_EQ(array.size(), 4u);

    kyByteArrayLowFootprint moved(std::move(array));
    EXPECT_TRUE(array.isEmpty() && !array.isNull());  // NOLINT(bugprone-use-after-move)
    array.setToNull();
    moved.swap(array);
    EXPECT_TRUE(moved.isNull());
    moved = std::move(array);
    EXPECT_EQ(moved.toStringView(), "text");
}

TEST(ByteArray, TakesItsOwnBytes)
{
    kyByteArrayLowFootprint array("0123456789");
    const kyByteArrayLowFootprint& self = array;
    array = self;
    EXPECT_EQ(array.toStringView(), "0123456789");
    array.setData(array.rawData() + 2, 5);
    EXPECT_EQ(array.toStringView(), "23456");
    array = kyByteArrayLowFootprint(std::string(array.toStringView().substr(1, 2)));
    EXPECT_EQ(array.toStringView(), "34");
}

TEST(ByteArray, RefusesWhatItsLengthCannotTell)
{
    kyByteArrayLowFootprint array("kept");
    const unsigned long tooMuch = 1ul << 32;
    EXPECT_THROW(array.setData("never read", tooMuch), std::length_error);
    EXPECT_THROW(array.resizeAndClear(tooMuch, 'x'), std::length_error);
    EXPECT_EQ(array.toStringView(), "kept");
}

TEST(ByteArray, CostsOnePointerAndOneBlock)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has an allocator of its own";
#endif
    const std::size_t count = 1'000'000;
    const auto inUse = [] {
        const struct ::mallinfo2 info = ::mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    const std::size_t before = inUse();
    std::vector<kyByteArrayLowFootprint> arrays(count);
    for (std::size_t i = 0; i < count; i += 2)
        arrays[i].setToNull();
    EXPECT_LE(inUse() - before, 8 * count + 8192);
    const std::size_t beforeBlock = inUse();
    arrays[0].resizeAndClear(100'000, 'x');
    EXPECT_LE(inUse() - beforeBlock, 100'005u + 32);
}
