#include "ky/kyVariant.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <cmath>

using ky::kyVariant;
using Map = kyVariant::kyVariantMapImpl;
using List = kyVariant::kyVariantListImpl;

namespace {

Map Nested(std::string_view key, kyVariant value)
{
    Map map;
    map.edit(key) = std::move(value);
    return map;
}

}  // namespace

TEST(Variant, TellsItsTypeAndConverts)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr std::int64_t most = INT64_MAX;
    const struct {
        kyVariant value;
        const char* typeName;
        std::int64_t integer;
        double real;
        bool boolean;
        const char* text;
    } rows[] = {
        {{}, "NULL", 0, 0, false, ""},
        {static_cast<const char*>(nullptr), "NULL", 0, 0, false, ""},
        {-7, "INTEGER", -7, -7, true, "-7"},
        {'a', "INTEGER", 97, 97, true, "97"},
        {~0UL, "INTEGER", most, 9223372036854775807.0, true, "9223372036854775807"},
        {1.0, "REAL", 1, 1, true, "1.0"},
        {-0.0, "REAL", 0, 0, false, "-0.0"},
        {0.1F, "REAL", 0, 0.1F, true, "0.10000000149011612"},
        {0.1, "REAL", 0, 0.1, true, "0.1"},
        {1e22, "REAL", most, 1e22, true, "1e+22"},
        {-1e19, "REAL", INT64_MIN, -1e19, true, "-1e+19"},
        {infinity, "REAL", most, infinity, true, "inf"},
        {-infinity, "REAL", INT64_MIN, -infinity, true, "-inf"},
        {true, "BOOL", 1, 1, true, "true"},
        {false, "BOOL", 0, 0, false, "false"},
        {"on", "STRING", 0, 0, true, "on"},
        {std::string("0x1F"), "STRING", 31, 31, false, "0x1F"},
        {std::string_view("-2.5"), "STRING", -2, -2.5, false, "-2.5"},
        {Nested("a", List{1, 2.0, "q\"", {}, Map()}), "MAP", 0, 0, false,
         "{a: [1, 2.0, \"q\\\"\", null, {}]}"},
        {List(), "LIST", 0, 0, false, "[]"},
        {kyVariant::kyRealVector{1, 0.5}, "REAL_VECTOR", 0, 0, false, "[1.0, 0.5]"},
        {kyVariant::kyRealMatrix{2, 2, {1, 2, 3, 4}}, "REAL_MATRIX", 0, 0, false,
         "[[1.0, 2.0], [3.0, 4.0]]"},
        {kyVariant::kyRealMatrix{9, 2, {1, 2, 3}}, "REAL_MATRIX", 0, 0, false,
         "[[1.0, 2.0], [3.0]]"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_STREQ(row.value.getTypeName(), row.typeName);
        EXPECT_EQ(row.value.toInteger(), row.integer);
        EXPECT_EQ(row.value.toReal(), row.real);
        EXPECT_EQ(row.value.toBool(), row.boolean);
        EXPECT_EQ(row.value.toString(), row.text);
        // Equal to nothing but itself and its copies.
        for (const auto& other : rows)
            EXPECT_EQ(kyVariant(row.value) == other.value,
                      row.value.getType() == other.value.getType() &&
                          row.value.toString() == other.value.toString());
    }
    for (const double nan : {std::numeric_limits<double>::quiet_NaN(), -std::nan("1")}) {
        EXPECT_TRUE(kyVariant(nan).toString() == "nan" && kyVariant(nan).toInteger() == 0);
        EXPECT_NE(kyVariant(nan), kyVariant(nan));
    }
}

TEST(Variant, TakesAPartOfItself)
{
    kyVariant value = Nested("a", Nested("b", "text"));
    value = *value.getMap()->find("a");
    EXPECT_EQ(value.toString(), "{b: \"text\"}");
    kyVariant list = List{List{1}, 2};
    list = std::move(list.editList()->front());
    EXPECT_EQ(list.toString(), "[1]");
    Map map = Nested("a", Nested("b", 1));
    map = *map.find("a")->getMap();
    EXPECT_EQ(map, Nested("b", 1));
    const kyVariant taken = std::move(value);
    EXPECT_EQ(value.getType(), kyVariant::Null);  // NOLINT(bugprone-use-after-move): told
}

TEST(VariantMap, FindsMakesAndRemovesByPath)
{
    Map map;
    *map.editValuePath("a/b/c") = 1;
    *map.editValuePath("a\xFF") = 2;
    *map.editValuePath("a.x", '.') = 3;
    *map.editValuePath("A") = 4;
    map.edit("") = 5;
    const Map before = map;
    // Where no value can stand nothing is made on the way.
    for (const char* path : {"", "/", "/a", "a/", "a//d", "a", "a/b", "a/b/c/d", "A/n/e/w"})
        EXPECT_EQ(map.editValuePath(path), nullptr) << path;
    for (const char* path : {"", "/a", "a//b", "A/b", "A"})
        EXPECT_EQ(map.editMapPath(path), nullptr) << path;
    for (const char* path : {"", "/", "/a", "a/", "a//b", "a/b/c/d", "b", "a/c"}) {
        EXPECT_EQ(map.findPathImpl(path), nullptr) << path;
        EXPECT_FALSE(map.removePath(path)) << path;
    }
    EXPECT_FALSE(map.insert("A", 0));
    EXPECT_EQ(map, before);
    EXPECT_EQ(map.editValuePath("a/b/c"), map.findPathImpl("a/b/c"));
    EXPECT_EQ(map.editMapPath("a/b"), map.findPathImpl("a/b")->getMap());

    std::map<std::string, kyVariant> flat = {{"A", "old"}, {"other", 0}};
    map.toFlattenMap(flat);
    const std::map<std::string, kyVariant> expected = {{"", 5},    {"A", 4},     {"a/b/c", 1},
                                                       {"a/x", 3}, {"a\xFF", 2}, {"other", 0}};
    EXPECT_EQ(flat, expected);
    EXPECT_TRUE(map.removePath("a/b") && map.findPathImpl("a/b/c") == nullptr &&
                map.removePath("a\xFF"));
    EXPECT_EQ(kyVariant(map).toString(), "{: 5, A: 4, a: {x: 3}}");
}

TEST(Variant, StandsAnyDepth)
{
    constexpr int depth = 300'000;
    std::string path = "k";
    for (int i = 0; i < depth; ++i)
        path += "/k";
    Map map;
    *map.editValuePath(path) = "bottom";
    kyVariant list = 1;
    for (int i = 0; i < depth; ++i) {
        List holder(2);
        holder[1] = std::move(list);
        list = std::move(holder);
    }
    map.edit("list") = list;
    Map copy = map;
    EXPECT_TRUE(copy == map && copy.findPathImpl(path)->toString() == "bottom");
    *copy.editValuePath(path) = "other";
    EXPECT_TRUE(copy != map && *map.findPathImpl(path) == "bottom");
    std::map<std::string, kyVariant> flat;
    map.toFlattenMap(flat);
    EXPECT_TRUE(flat.size() == 2 && flat[path] == "bottom" && flat["list"] == list);
    const std::string text = list.toString();
    EXPECT_TRUE(text.substr(0, 14) == "[null, [null, " && text.back() == ']');
}
