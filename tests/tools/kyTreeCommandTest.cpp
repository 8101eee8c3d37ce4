#include "tools/Shell.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using ky::test::TemporaryFolder;

namespace {
const std::string sAllTenths = "10%\n20%\n30%\n40%\n50%\n60%\n70%\n80%\n90%\n100%\n";
}  // namespace

TEST(TreeCommand, CopiesWhateverTheNamesLinksAndSizesAre)
{
    // In the C locale none of the odd names exists for the library.
    ky::test::ExpectShell(
        {}, {{"mkdir -p source/folder/below source/closed; cd source; "
              "for name in plain folder/caf\xc3\xa9 'bad\xff bytes' 'new\nline' closed/inside " +
              std::string(255, 'n') +
              "; do echo \"of $name\" > \"$name\"; done; "
              "head -c 9437187 /dev/urandom > big; : > empty; truncate -s 40M sparse; "
              "echo end >> sparse; ln -s / root; ln -s . self; ln -s .. up; ln -s missing none; "
              "mkfifo pipe; chmod 640 plain; chmod 555 closed"},
             {"LC_ALL=C ky tree copy source 'made/on the way'",
              1,
              sAllTenths,
              {"no file, folder or link: source/pipe. "}},
             {"rm source/pipe; diff -r --no-dereference source made/*; cd made/*; "
              "stat -c %a plain closed; [ $(stat -c %b sparse) -lt 2048 ]",
              0, "640\n555\n"},
             {"chmod 755 */closed */*/closed"}});
}

TEST(TreeCommand, ReplacesWhatExistsOnlyWhenAskedTo)
{
    ky::test::ExpectShell(
        {},
        {{"mkdir -p source/folder destination/blocked/full destination/folder; "
          "echo new | tee source/file source/blocked > source/folder/fresh; "
          "echo old > other; ln other destination/file"},
         {"ky tree copy -q source destination 2> errors; echo $?; sort errors | cut -d ' ' -f -8; "
          "cat destination/file destination/folder/fresh",
          0,
          "1\nky: Cannot copy source/blocked. System error : '(17)\n"
          "ky: Cannot copy source/file. System error : '(17)\nold\nnew\n"},
         {"ky tree copy -oq source destination", 1, "", {"Cannot copy source/blocked. "}},
         {"cat destination/file other  # not through the hard link", 0, "new\nold\n"}});
}

TEST(TreeCommand, RefusesToCopyAFolderIntoItself)
{
    const TemporaryFolder folder;
    ExpectShell(folder, {{"mkdir -p source/inner; ln -s source/inner link; echo x > file"},
                         {"ky tree copy file new", 1, "", {"ky: Cannot open file. "}},
                         {"ky tree copy source file", 1, "", {"ky: Cannot open file. "}}});
    for (const std::string path :
         {"source", "source/inner/new/er", "source/../source/x/", "link/y"})
        ExpectShell(folder, {{"ky tree copy source " + path,
                              1,
                              "",
                              {"because it is the source or inside: " + path + ". "}}});
    ExpectShell(folder, {{"find . -mindepth 1 | wc -l", 0, "4\n"}});
}

TEST(TreeCommand, CopiesTreesDeeperThanAnyPathWithFewDescriptors)
{
    ky::test::ExpectChildPasses([] {
        const TemporaryFolder folder;
        EXPECT_EQ(::chdir(folder.path("").c_str()) | ::mkdir("source", 0777), 0);
        EXPECT_EQ(::chdir("source"), 0);
        constexpr int sDepth = 700;  // of 7 bytes each
        for (int i = 0; i < sDepth; ++i)
            EXPECT_EQ(::mkdir("folder", 0777) | ::chdir("folder"), 0);
        ExpectShell(folder, {{"ulimit -n 64; ky tree copy source copy", 0, sAllTenths}});
        EXPECT_EQ(::chdir(folder.path("copy").c_str()), 0);
        int depth = 0;
        while (::chdir("folder") == 0)
            ++depth;
        EXPECT_EQ(depth, sDepth);
    });
}

TEST(TreeCommand, StopsAtASignalAndLeavesNothingHalfWritten)
{
    // The signal goes out as soon as there is something half-written.
    ky::test::ExpectShell(
        {}, {{"mkdir source destination; truncate -s 64G source/huge; "
              "ky tree copy source destination > out & "
              "while kill -0 $! && [ -z \"$(ls -A destination)\" ]; do :; done; kill -TERM $!; "
              "wait $!; echo $?; ls -A destination; grep 100% out",
              1,
              "1\n",
              {"ky: Canceled"}}});
}

TEST(TreeCommand, ClearsTheFolderThatIsMeant)
{
    const TemporaryFolder folder;
    for (const std::string path : {"caf\xc3\xa9", "link"})
        ExpectShell(folder, {{"mkdir -p caf\xc3\xa9; ln -sfn caf\xc3\xa9 link; cd link; "
                              "for i in $(seq 30); do echo > bad\xff$i; done"},
                             {"LC_ALL=C ky tree clear " + path, 0, sAllTenths},
                             {"ls -A link/"}});
    ExpectShell(folder,
                {{"ky tree clear missing", 1, "", {"Cannot open missing. System error : '(2) "}}});
}
