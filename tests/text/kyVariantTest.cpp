#include "ky/kyVariant.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

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
    const struct {
        kyVariant value;
        const char* typeName;
        std::int64_t integer;
        double real;
        bool boolean;
        const char* text;
    } rows[] = {
        {static_cast<const char*>(nullptr), "NULL", 0, 0, false, ""},
        {~0UL, "INTEGER", INT64_MAX, 9223372036854775807.0, true, "9223372036854775807"},
        {-0.0, "REAL", 0, 0, false, "-0.0"},
        {1e22, "REAL", INT64_MAX, 1e22, true, "1e+22"},
        {-infinity, "REAL", INT64_MIN, -infinity, true, "-inf"},
        {true, "BOOL", 1, 1, true, "true"},
        {"on", "STRING", 0, 0, true, "on"},
        {std::string("0x1F"), "STRING", 31, 31, false, "0x1F"},
        {List{1, 2.0, "q\"", {}, Map()}, "LIST", 0, 0, false, "[1, 2.0, \"q\\\"\", null, {}]"},
        {Nested("a", List()), "MAP", 0, 0, false, "{a: []}"},
        {kyVariant::kyRealVector{1, 0.5}, "REAL_VECTOR", 0, 0, false, "[1.0, 0.5]"},
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
            EXPECT_EQ(kyVariant(row.value) == other.value, &row == &other);
    }
    EXPECT_EQ(kyVariant(-std::nan("1")).toString(), "nan");
    EXPECT_EQ(kyVariant(std::nan("1")).toInteger(), 0);
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
    for (const char* path : {"", "/a", "a/", "a//d", "a", "a/b/c/d", "A/n/e/w"})
        EXPECT_EQ(map.editValuePath(path), nullptr) << path;
    for (const char* path : {"", "/a", "a//b", "A/b", "A"})
        EXPECT_EQ(map.editMapPath(path), nullptr) << path;
    for (const char* path : {"", "/a", "a/", "a//b", "a/b/c/d", "b", "a/c"}) {
        EXPECT_EQ(map.findPathImpl(path), nullptr) << path;
        EXPECT_FALSE(map.removePath(path)) << path;
    }
    EXPECT_FALSE(map.insert("A", 0));
    EXPECT_EQ(map, before);

    std::map<std::string, kyVariant> flat = {{"A", "old"}, {"other", 0}};
    map.toFlattenMap(flat);
    const std::map<std::string, kyVariant> expected = {{"", 5},    {"A", 4},     {"a/b/c", 1},
                                                       {"a/x", 3}, {"a\xFF", 2}, {"other", 0}};
    EXPECT_EQ(flat, expected);
    EXPECT_TRUE(map.removePath("a/b") && map.removePath("a\xFF"));
    EXPECT_EQ(kyVariant(map).toString(), "{: 5, A: 4, a: {x: 3}}");
}

TEST(Variant, StandsAnyDepth)
{
    constexpr int depth = 300'000;
    std::string path = "k";
    kyVariant list = 1;
    for (int i = 0; i < depth; ++i) {
        path += "/k";
        List holder(2);
        holder[1] = std::move(list);
        list = std::move(holder);
    }
    Map map = Nested("list", list);
    *map.editValuePath(path) = "bottom";
    Map copy = map;
    EXPECT_TRUE(copy == map && copy.findPathImpl(path)->toString() == "bottom");
    *copy.editValuePath(path) = "other";
    EXPECT_TRUE(copy != map && *map.findPathImpl(path) == "bottom");
    std::map<std::string, kyVariant> flat;
    map.toFlattenMap(flat);
    EXPECT_TRUE(flat.size() == 2 && flat[path] == "bottom" && flat["list"] == list);
    EXPECT_TRUE(list.toString().starts_with("[null, [null, "));
}
