#include "support/IniFile.h"

using ky::kyVariant;
using ky::test::IniFile;
using std::string_literals::operator""s;

TEST_F(IniFile, TypesValuesAsTold)
{
    const auto typed = [this](const std::string& content) {
        map.clear();
        EXPECT_EQ(load(content), "");
        return kyVariant(map).toString();
    };
    EXPECT_EQ(typed("a=0x10\nb=010\nc=+5\nd=08\ne=9223372036854775808\nf=-99999999999999999999"),
              "{a: 16, b: 8, c: 5, d: 8.0, e: 9223372036854775807, f: -9223372036854775808}");
    EXPECT_EQ(typed("a=1e3\nb=-0.\nc=0x1p4\nd=1e999\ne=-INF\nf=NaN"),
              "{a: 1000.0, b: -0.0, c: 16.0, d: inf, e: -inf, f: nan}");
    EXPECT_EQ(typed("a=TRUE\nb=truer\nc=\"TRUE\"\nd=1e\ne=nano\nf=1,5\ng=1\0\nh="s),
              "{a: true, b: \"truer\", c: \"TRUE\", d: \"1e\", e: \"nano\", f: \"1,5\", "
              "g: \"1\0\", h: \"\"}"s);
    EXPECT_EQ(typed("a\t= \r\"\nb=\" a \" \v\f\t\r\nc = a = b # c ; d\nd=\xC3\xA9\xA0"),
              "{a: \"\\\"\", b: \" a \", c: \"a = b # c ; d\", d: \"\xC3\xA9\xA0\"}");
    EXPECT_EQ(typed(R"(a=a\n\\)"), R"({a: "a\\n\\\\"})");
    EXPECT_EQ(typed(R"(a="\"\t\r\n\\")"), "{a: \"\\\"\t\r\n\\\\\"}");
    EXPECT_EQ(typed(R"(a="\\n")"), "{a: \"\\\\\n\"}") << "kept";
}

TEST_F(IniFile, ReadsSectionsAndTellsTheLineThatIsWrong)
{
    EXPECT_EQ(load("\xEF\xBB\xBFtop=1\n ; no\n\n\t [ s/t ] \r\nk#1 = [x]\n[General]\ng=3\n[]\n"
                   "e/f=4\n[empty]\n[general]\nx=5\n[s/t]\nl=6\n[u]b=c]\nm=7\n[General/x]\ny=8"),
              "");
    EXPECT_EQ(kyVariant(map).toString(),
              "{ s: {t : {k#1: \"[x]\"}}, General: {x: {y: 8}}, e: {f: 4}, g: 3, "
              "general: {x: 5}, s: {t: {l: 6}}, top: 1, u]b=c: {m: 7}}");
    const std::pair<const char*, const char*> rows[] = {
        {"a=1\n\r\n;c\n  what is this \t\nb=2", "Invalid line (4) what is this in Ini file"},
        {"a=1\n=1", "Invalid key at line (2)  in Ini file"},
        {"a=1\na//b=1", "Invalid key at line (2) a//b in Ini file"},
        {"a=1\n[s//t]\n\nb=1", "Invalid key at line (4) b in Ini file"},
        {"a=1\na/b=2", "Invalid key at line (2) a/b in Ini file"},
        {"a=1\n a =2", "Duplicated key at line (2) a in Ini file"},
        {"a=1\n[s]\na=1\n[t]\n[s]\n\na=1", "Duplicated key at line (7) s/a in Ini file"},
    };
    for (const auto& [content, expected] : rows) {
        map.clear();
        EXPECT_EQ(load(content), expected);
        EXPECT_NE(map.find("a"), nullptr) << "kept: what was read before";
        EXPECT_EQ(map.find("b"), nullptr);
    }
    for (const std::string& name : {folder.path(""), folder.path("none"), path + "\0"s})
        EXPECT_EQ(message(LoadIniFile(name, map)), "Fail to open " + name);
}

TEST_F(IniFile, StandsDeepSections)
{
    // A map for each slash, and keys that would flatten to texts of as many gigabytes.
    std::string deep = "[s";
    for (int i = 0; i < 300'000; ++i)
        deep += "/s";
    deep += "]\n";
    for (int i = 0; i < 20'000; ++i)
        deep += std::to_string(i) + "=1\n";
    EXPECT_EQ(load(deep), "");
    Map again;
    EXPECT_TRUE(SaveIniFile(path, Made({{"new", true}}), true) && LoadIniFile(path, again));
    map.edit("new") = true;
    EXPECT_EQ(again, map);
}
