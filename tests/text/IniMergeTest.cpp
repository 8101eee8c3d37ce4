#include "support/IniFile.h"

using ky::kyVariant;
using ky::test::Contains;
using ky::test::Content;
using ky::test::IniFile;

TEST_F(IniFile, WritesToTheByte)
{
    map = Made({{"text", "C:\\dir\n\t\r"},
                {"quoted", "say \"C:\\x\"\n"},
                {"General/text", "other"},
                {"General/own", ""},
                {"General/z", 1},
                {"General/deep/k", 1},
                {"z/y/x/k", 1e5},
                {"z/whole", 3.0},
                {"A/b", true}});
    map.edit("") = "no place";
    map.edit("gone") = Map();
    map.edit("gone").editMap()->edit("") = "no place";
    map.edit("list") = kyVariant::kyVariantListImpl{1};
    map.edit("empty") = Map();
    EXPECT_TRUE(SaveIniFile(path, map, false));
    EXPECT_EQ(Content(path),
              "[General]\navoidcrashkey=no place\nquoted=\"say \\\"C:\\\\x\\\"\\n\"\n"
              "text=C:\\\\dir\\n\\t\\r\nown=\n"
              "\n[A]\nb=true\n"
              "\n[General/deep]\nk=1\n"
              "\n[z]\nwhole=3.0\n\n[z/y]\n\n[z/y/x]\nk=1e+05\n");
    const std::string logged = console.take();
    EXPECT_TRUE(logged.starts_with("CRITICAL ")) << logged;
    for (const char* const message :
         {" : saveVariantToIni unsupported variant type (LIST) for key list\nWARNING ",
          " : Key text of section General is not saved, the top level has it too\nWARNING ",
          " : Key z of section General is not saved, the top level has it too\n"})
        EXPECT_TRUE(Contains(logged, message)) << logged;
    Map again;
    EXPECT_TRUE(LoadIniFile(path, again));
    EXPECT_EQ(again.find("quoted")->toString(), "say \"C:\\x\"\n");
    // kept: without quotes the escapes stay.
    EXPECT_EQ(again.find("text")->toString(), "C:\\\\dir\\n\\t\\r");
}

TEST_F(IniFile, PutsTheMapOverWhatTheFileHolds)
{
    folder.write("settings.ini", "both=1\nfile=2\nscalar=3\n[section]\nk=4\n[s]\nboth=5\nfile=6\n");
    map = Made({{"both", "new"}, {"s/both", "new"}, {"scalar/below", 7}});
    EXPECT_TRUE(SaveIniFile(path, map, true));
    EXPECT_EQ(Content(path),
              "[General]\navoidcrashkey=7\nboth=new\nfile=2\nscalar=3\n"
              "\n[s]\nboth=new\nfile=6\n\n[section]\nk=4\n");
    map = Made({{"section", 8}});
    EXPECT_TRUE(SaveIniFile(path, map, true));
    EXPECT_TRUE(Content(path).starts_with("[General]\navoidcrashkey=8\nboth=new\n"));

    folder.write("settings.ini", "no line");
    const std::string failed = message(SaveIniFile(path, map, true));
    EXPECT_TRUE(failed.starts_with("Invalid line (1) no line in Ini file\n")) << failed;
    EXPECT_TRUE(failed.ends_with(" : Fail to load " + path)) << failed;
    EXPECT_EQ(Content(path), "no line");
    for (const bool merge : {false, true}) {
        const std::string file = merge ? folder.path("new") : path;
        EXPECT_TRUE(SaveIniFile(file, map, merge));
        EXPECT_EQ(Content(file), "[General]\nsection=8\n");
    }
}
