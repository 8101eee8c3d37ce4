#include "ky/kyIniFile.h"

#include "support/Asleep.h"
#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cstdio>

namespace fs = std::filesystem;
using ky::kyVariant;
using ky::LoadIniFile;
using ky::SaveIniFile;
using ky::test::Content;
using Map = kyVariant::kyVariantMapImpl;

namespace {

struct IniFile : ky::test::LightLibrary {
    const ky::test::TemporaryFolder folder;
    const std::string path = folder.path("settings.ini");
    Map map;

    /// Loads a file of that content and gives the message, none on success.
    std::string load(std::string_view content)
    {
        folder.write("settings.ini", content);
        return message([&] { return LoadIniFile(path, map); });
    }

    /// What `call` has logged, without the prefix of the first line. An expectation fails unless
    /// there is a CRITICAL line exactly when the call failed.
    template <typename Call>
    std::string message(Call call)
    {
        ky::test::CaughtStream output(std::cout);
        const bool isGood = call();
        std::string text = output.take();
        EXPECT_EQ(text.find("CRITICAL ") == 0, !isGood) << text;
        text.erase(0, text.find(" : ") + 3);
        return isGood || text.empty() ? text : text.substr(0, text.size() - 1);
    }

    std::vector<std::string> filesInFolder() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder.path("")))
            names.push_back(entry.path().filename());
        return names;
    }
    const std::vector<std::string> onlyTheFile = {"settings.ini"};
};

Map Numbered(const char* text, int count)
{
    Map map;
    for (int i = 0; i < count; ++i)
        *map.editValuePath("s/" + std::to_string(i)) = text;
    return map;
}

/// Gives up the rights of the super-user, where the test has them, as a user who owns nothing.
void BecomeNobody()
{
    constexpr unsigned nobody = 65534;
    EXPECT_TRUE(::geteuid() != 0 || (::setgid(nobody) == 0 && ::setuid(nobody) == 0));
}

}  // namespace

TEST_F(IniFile, TypesValuesAsTold)
{
    const struct {
        std::string_view text;
        kyVariant value;
    } rows[] = {
        {"0x10", 16},
        {"010", 8},
        {"-0", 0},
        {"+5", 5},
        {"- 5", "- 5"},
        {"08", 8.0},
        {"0x", "0x"},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", INT64_MAX},
        {"-99999999999999999999", INT64_MIN},
        {"1e3", 1000.0},
        {"1e", "1e"},
        {".5", 0.5},
        {"5.", 5.0},
        {"-0.", -0.0},
        {"0x1p4", 16.0},
        {"1e999", std::numeric_limits<double>::infinity()},
        {"1e-999", 0.0},
        {"4.9e-324", 4.9e-324},
        {"-INF", -std::numeric_limits<double>::infinity()},
        {"nano", "nano"},
        {"1,5", "1,5"},
        {"TRUE", true},
        {"fAlse", false},
        {"truer", "truer"},
        {"on", "on"},
        {"", ""},
        {"\"TRUE\"", "TRUE"},
        {"\"\"", ""},
        {"\"", "\""},
        {"\" a \"", " a "},
        {"\"a", "\"a"},
        {R"(a\n\\)", R"(a\n\\)"},
        {R"("\"\t\r\n\\")", "\"\t\r\n\\"},
        {R"("\\n")", "\\\n"},
        {R"("\\\"")", R"(\")"},
        {"a = b # c ; d", "a = b # c ; d"},
        {std::string_view("1\0", 2), std::string("1\0", 2)},
        {std::string_view("\0", 1), std::string("\0", 1)},
        {"\xC3\xA9\xA0", "\xC3\xA9\xA0"},
    };
    for (const auto& row : rows) {
        // At the end of the file and before a line end, between white space.
        for (const char* end : {"", " \v\f\t\r\n"}) {
            Map read;
            std::swap(map, read);
            const std::string content = "k\t= \r" + std::string(row.text) + end;
            SCOPED_TRACE(content);
            EXPECT_EQ(load(content), "");
            ASSERT_NE(map.find("k"), nullptr);
            EXPECT_EQ(map.find("k")->toString(), row.value.toString());
            EXPECT_EQ(*map.find("k"), row.value);
        }
    }
    EXPECT_EQ(load("not=NaN"), "");
    EXPECT_TRUE(map.find("not")->getType() == kyVariant::Real &&
                map.find("not")->toString() == "nan");
}

TEST_F(IniFile, ReadsSectionsAndTellsTheLineThatIsWrong)
{
    EXPECT_EQ(
        load("\xEF\xBB\xBFtop=1\n ; no\n\n\t [ s/t ] \r\nk#1 = [x]\n[a]=2\n[General]\ng=3\n"
             "[]\ne/f=4\n[empty]\n[general]\nx=5\n[s/t]\nl=6\n[u]b=c]\nm=7\n[General/x]\ny=8"),
        "");
    EXPECT_EQ(kyVariant(map).toString(),
              "{General: {x: {y: 8}}, e: {f: 4}, g: 3, general: {x: 5}, "
              "s: {t: {[a]: 2, k#1: \"[x]\", l: 6}}, top: 1, u]b=c: {m: 7}}");

    const struct {
        const char* content;
        const char* message;
    } rows[] = {
        {"a=1\n\r\n;c\n  what is this \t\nb=2", "Invalid line (4) what is this in Ini file"},
        {"[a", "Invalid line (1) [a in Ini file"},
        {"=1", "Invalid key at line (1)  in Ini file"},
        {"[s]\n /a = 1", "Invalid key at line (2) /a in Ini file"},
        {"a/=1", "Invalid key at line (1) a/ in Ini file"},
        {"a//b=1", "Invalid key at line (1) a//b in Ini file"},
        {"[s//t]\n\na=1", "Invalid key at line (3) a in Ini file"},
        {"[/]\na=1", "Invalid key at line (2) a in Ini file"},
        {"a=1\na/b=2", "Invalid key at line (2) a/b in Ini file"},
        {"[s]\na=1\n[s/a/t]\nb=2", "Invalid key at line (4) b in Ini file"},
        {"a=1\n a =2", "Duplicated key at line (2) a in Ini file"},
        {"[s]\na=1\n[t]\n[s]\n\na=1", "Duplicated key at line (6) s/a in Ini file"},
        {"[s]\na=1\n[]\ns=2", "Duplicated key at line (4) s in Ini file"},
        {"[s]\na/b=1\na=2", "Duplicated key at line (3) s/a in Ini file"},
    };
    for (const auto& row : rows) {
        map.clear();
        EXPECT_EQ(load(row.content), row.message);
        EXPECT_EQ(map.empty(), std::string_view(row.content).find("=1\n") == std::string::npos)
            << row.content;
    }
    // What is there already is no other's.
    EXPECT_EQ(load("[s/a]\nc=2"), "");
    EXPECT_EQ(load("z=1\n[s]\na/c=2\n"), "Duplicated key at line (3) s/a/c in Ini file");
    EXPECT_NE(map.find("z"), nullptr);

    for (const std::string& name : {folder.path(""), folder.path("none"), std::string(),
                                    path + std::string(1, '\0'), std::string("/proc/self/mem")})
        EXPECT_EQ(message([&] { return LoadIniFile(name, map); }), "Fail to open " + name);
}

TEST_F(IniFile, StandsHostileFiles)
{
    std::string lines;
    for (int i = 0; i < 200'000; ++i)
        lines += "[" + std::to_string(i) + "]\nk=" + std::to_string(i) + "\n";
    EXPECT_EQ(load(lines), "");
    EXPECT_EQ(map.findPathImpl("199999/k")->toInteger(), 199'999);
    EXPECT_EQ(load(lines).substr(0, 33), "Duplicated key at line (2) 0/k in");
    map.clear();
    const std::string digits(1'000'000, '1');
    EXPECT_EQ(load("a=" + digits + "\nb=" + digits + ".\nc=" + digits + 'x'), "");
    EXPECT_TRUE(map.find("a")->toInteger() == INT64_MAX && *map.find("c") == digits + 'x' &&
                map.find("b")->getType() == kyVariant::Real);
    map.clear();
    EXPECT_EQ(load("[" + std::string(300'000, '/') + "]\nk=1").substr(0, 26),
              "Invalid key at line (2) k ");
    // One map in each slash, and keys that would flatten to texts of as many gigabytes.
    std::string deep = "[s";
    for (int i = 0; i < 300'000; ++i)
        deep += "/s";
    deep += "]\n";
    for (int i = 0; i < 20'000; ++i)
        deep += std::to_string(i) + "=1\n";
    EXPECT_EQ(load(deep), "");
    Map change;
    change.edit("new") = true;
    EXPECT_TRUE(SaveIniFile(path, change, true));
    Map again;
    EXPECT_TRUE(LoadIniFile(path, again));
    map.edit("new") = true;
    EXPECT_EQ(again, map);

    // Each map of a chain with a header would make 200 MB of these 200 KB.
    std::string chains;
    for (int i = 0; i < 50; ++i) {
        chains += "[" + std::to_string(i);
        for (int level = 0; level < 2000; ++level)
            chains += "/s";
        chains += "]\nk=1\n";
    }
    map.clear();
    again.clear();
    EXPECT_EQ(load(chains), "");
    EXPECT_TRUE(SaveIniFile(path, map, false) && LoadIniFile(path, again) && again == map);
    EXPECT_LT(fs::file_size(path), 20'000'000U);
}

TEST_F(IniFile, WritesToTheByte)
{
    map.edit("text") = "C:\\dir\n\t\r";
    map.edit("quoted") = "say \"C:\\x\"\n";
    map.edit("General") = Map();
    *map.editValuePath("General/text") = "other";
    *map.editValuePath("General/own") = "";
    *map.editValuePath("General/z") = 1;
    *map.editValuePath("General/deep/k") = 1;
    *map.editValuePath("z/y/x/k") = 1e5;
    *map.editValuePath("z/whole") = 3.0;
    *map.editValuePath("A/b") = true;
    map.edit("A/c") = -1;
    map.edit("") = "no place";
    map.edit("list") = kyVariant::kyVariantListImpl{1};
    *map.editValuePath("v/vector") = kyVariant::kyRealVector{1};
    map.edit("empty") = Map();
    ky::test::CaughtStream output(std::cout);
    EXPECT_TRUE(SaveIniFile(path, map, false));
    EXPECT_EQ(Content(path),
              "[General]\navoidcrashkey=no place\nquoted=\"say \\\"C:\\\\x\\\"\\n\"\n"
              "text=C:\\\\dir\\n\\t\\r\nown=\n"
              "\n[A]\nb=true\nc=-1\n"
              "\n[General/deep]\nk=1\n"
              "\n[v]\n"
              "\n[z]\nwhole=3.0\n\n[z/y]\n\n[z/y/x]\nk=1e+05\n");
    const std::vector<std::string> logged = ky::test::Lines(output.take());
    const char* const expected[] = {
        "CRITICAL.saveVariantToIni unsupported variant type (LIST) for key list",
        "WARNING.Key text of section General is not saved, the top level has it too",
        "WARNING.Key z of section General is not saved, the top level has it too",
        "CRITICAL.saveVariantToIni unsupported variant type (REAL_VECTOR) for key vector"};
    ASSERT_EQ(logged.size(), std::size(expected));
    for (std::size_t i = 0; i < logged.size(); ++i)
        EXPECT_EQ(logged[i].substr(0, logged[i].find(' ')) + '.' +
                      logged[i].substr(logged[i].find(" : ") + 3),
                  expected[i]);
    Map again;
    EXPECT_TRUE(LoadIniFile(path, again));
    EXPECT_EQ(again.find("quoted")->toString(), "say \"C:\\x\"\n");
    // kept: without quotes the escapes stay.
    EXPECT_EQ(again.find("text")->toString(), "C:\\\\dir\\n\\t\\r");
}

TEST_F(IniFile, MergesOverWhatTheFileHolds)
{
    folder.write("settings.ini", "both=1\nfile=2\nscalar=3\n[section]\nk=4\n[s]\nboth=5\nfile=6\n");
    map.edit("both") = "new";
    *map.editValuePath("s/both") = "new";
    *map.editValuePath("scalar/below") = 7;
    EXPECT_TRUE(SaveIniFile(path, map, true));
    EXPECT_EQ(Content(path),
              "[General]\navoidcrashkey=7\nboth=new\nfile=2\nscalar=3\n"
              "\n[s]\nboth=new\nfile=6\n\n[section]\nk=4\n");
    map.clear();
    map.edit("section") = 8;
    EXPECT_TRUE(SaveIniFile(path, map, true));
    EXPECT_NE(Content(path).find("[General]\navoidcrashkey=8\nboth=new\n"), std::string::npos);

    folder.write("settings.ini", "no line");
    const std::string failed = message([&] { return SaveIniFile(path, map, true); });
    EXPECT_NE(failed.find("Invalid line (1) no line in Ini file\n"), std::string::npos);
    EXPECT_EQ(failed.substr(failed.rfind(" : ")), " : Fail to load " + path);
    EXPECT_EQ(Content(path), "no line");
    EXPECT_TRUE(SaveIniFile(path, map, false));
    EXPECT_EQ(Content(path), "[General]\nsection=8\n");
    EXPECT_TRUE(SaveIniFile(folder.path("new"), map, true));
    EXPECT_EQ(Content(folder.path("new")), "[General]\nsection=8\n");
}

TEST_F(IniFile, KeepsLinksModeOwnerAndAttributes)
{
    map.edit("k") = "v";
    const std::string link = folder.path("link");
    const std::string chain = folder.path("chain");
    fs::create_directory(folder.path("sub"));
    fs::create_symlink("sub/file", link);
    fs::create_symlink(link, chain);
    const ::mode_t mask = ::umask(027);
    EXPECT_TRUE(SaveIniFile(chain, map, false));  // which makes the file that a link promises
    ::umask(mask);
    const std::string file = folder.path("sub/file");
    struct stat before;
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    EXPECT_EQ(before.st_mode & ALLPERMS, 0640u);

    ::chmod(file.c_str(), 0604);
    EXPECT_TRUE(::geteuid() != 0 || ::chown(file.c_str(), 65534, 65533) == 0);
    const bool hasAttributes = ::setxattr(file.c_str(), "user.ky", "value", 5, 0) == 0;
    ::stat(file.c_str(), &before);
    EXPECT_TRUE(SaveIniFile(link, map, false));
    struct stat after;
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino) << "not replaced";
    EXPECT_TRUE(after.st_mode == before.st_mode && after.st_uid == before.st_uid &&
                after.st_gid == before.st_gid);
    char value[5] = {};
    EXPECT_EQ(::getxattr(file.c_str(), "user.ky", value, sizeof value), hasAttributes ? 5 : -1);
    EXPECT_TRUE(fs::is_symlink(chain) && fs::is_symlink(link));
    EXPECT_EQ(Content(chain), "[General]\nk=v\n");
}

TEST_F(IniFile, WritesInPlaceOnlyWhatCannotBeReplaced)
{
    map = Numbered("new", 2);
    const std::string expected = "[General]\n\n[s]\n0=new\n1=new\n";
    ky::test::ExpectChildPasses([&] {
        const std::string closed = folder.path("closed");
        fs::create_directory(closed);
        const std::string file = folder.write("closed/file", std::string(1000, 'x'));
        const std::string readOnly = folder.write("read-only", "old");
        const std::string special = folder.path("special");
        EXPECT_EQ(::mkfifo(special.c_str(), 0666), 0);
        ::chmod(special.c_str(), 0666);
        ::chmod(file.c_str(), 0666);
        ::chmod(closed.c_str(), 0555);
        ::chmod(readOnly.c_str(), 0444);
        ::chmod(folder.path("").c_str(), 0777);
        BecomeNobody();
        EXPECT_TRUE(SaveIniFile(file, map, false));
        EXPECT_EQ(Content(file), expected);
        EXPECT_EQ(message([&] { return SaveIniFile(readOnly, map, false); }),
                  "Fail to open " + readOnly + ", " + ky::test::ErrorText(EACCES));
        EXPECT_EQ(Content(readOnly), "old");
        EXPECT_EQ(message([&] { return SaveIniFile(closed + "/new", map, false); }),
                  "Fail to open " + closed + "/new, " + ky::test::ErrorText(EACCES));

        const int pipe = ::open(special.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_TRUE(SaveIniFile("/proc/self/fd/" + std::to_string(pipe), map, false));
        char bytes[100] = {};
        EXPECT_EQ(::read(pipe, bytes, sizeof bytes), static_cast<ssize_t>(expected.size()));
        EXPECT_EQ(bytes, expected);
        ::close(pipe);
        EXPECT_TRUE(fs::is_fifo(special));
        ::unlink(special.c_str());
        EXPECT_EQ(filesInFolder().size(), 2u) << "something is left behind";
    });
    const std::string none = folder.path("none/file");
    EXPECT_EQ(message([&] { return SaveIniFile(none, map, false); }),
              "Fail to open " + none + ", " + ky::test::ErrorText(ENOENT));
    EXPECT_EQ(message([&] { return SaveIniFile("/dev/full", map, false); }),
              "Fail to write /dev/full, " + ky::test::ErrorText(ENOSPC));
    EXPECT_EQ(message([&] { return SaveIniFile("/", map, false); }),
              "Fail to open /, " + ky::test::ErrorText(EISDIR));
}

TEST_F(IniFile, WaitsForWhoeverWritesInPlaceToo)
{
    map = Numbered("new", 2);
    const int fd = ::open(folder.path("").c_str(), O_RDWR | O_CLOEXEC | O_TMPFILE, 0600);
    const std::string nameless = "/proc/self/fd/" + std::to_string(fd);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
    std::thread saving =
        ky::test::StartUntilAsleep([&] { EXPECT_TRUE(SaveIniFile(nameless, map, false)); });
    EXPECT_EQ(Content(nameless), "");
    lock.l_type = F_UNLCK;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
    saving.join();
    EXPECT_EQ(Content(nameless), "[General]\n\n[s]\n0=new\n1=new\n");
    ::close(fd);
}

TEST_F(IniFile, KeepsTheOldFileWhenThereIsNoRoom)
{
    const std::string old = "k=old\n";
    folder.write("settings.ini", old);
    ky::test::ExpectChildPasses([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {10'000, 10'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        map = Numbered("a value that takes room", 1000);
        const std::string deleted = folder.write("deleted", old);
        const int fd = ::open(deleted.c_str(), O_RDWR | O_CLOEXEC);
        ::unlink(deleted.c_str());
        // Once beside the file and once over the bytes of one that has no name.
        for (const std::string& name : {path, "/proc/self/fd/" + std::to_string(fd)}) {
            EXPECT_EQ(message([&] { return SaveIniFile(name, map, false); }),
                      "Fail to write " + name + ", " + ky::test::ErrorText(EFBIG));
            EXPECT_EQ(Content(name), old);
        }
        EXPECT_EQ(filesInFolder(), onlyTheFile);

        // A last descriptor for the old file, and for the new one only a number that is not kept.
        ::close(STDIN_FILENO);
        const int last = ::fcntl(STDOUT_FILENO, F_DUPFD, 3);
        ::close(last);
        const auto count = static_cast<rlim_t>(last) + 1;
        const rlimit files = {count, count};
        ::setrlimit(RLIMIT_NOFILE, &files);
        EXPECT_EQ(message([&] { return SaveIniFile(path, map, false); }),
                  "Fail to write " + path + ", " + ky::test::ErrorText(EMFILE));
        EXPECT_EQ(filesInFolder(), onlyTheFile);
    });
}

TEST_F(IniFile, LeavesAFileAloneThatIsRenamedMeanwhile)
{
    map = Numbered("new", 2);
    const std::string other = folder.path("other");
    for (int round = 0; round < 30; ++round) {
        std::vector<int> before;
        for (const char* name : {"settings.ini", "other"}) {
            ::unlink(folder.path(name).c_str());
            before.push_back(::open(folder.write(name, "old").c_str(), O_RDONLY | O_CLOEXEC));
        }
        std::atomic<bool> isSaved = false;
        std::atomic<bool> isAtWork = false;
        std::thread renaming([&] {
            while (!isSaved) {
                ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
                isAtWork = true;
            }
        });
        while (!isAtWork)
            std::this_thread::yield();
        EXPECT_TRUE(SaveIniFile(path, map, false));
        isSaved = true;
        renaming.join();
        for (const int fd : before) {
            char bytes[10] = {};
            EXPECT_EQ(::pread(fd, bytes, sizeof bytes, 0), 3) << "written over";
            ::close(fd);
        }
    }
}

TEST_F(IniFile, IsWholeWhoeverSavesAndDies)
{
    const Map contents[] = {Numbered("short", 300), Numbered("a longer text", 2000)};
    ASSERT_TRUE(SaveIniFile(path, contents[0], false));
    for (int round = 0; round < 10; ++round) {
        std::vector<pid_t> savers;
        for (const int own : {0, 1}) {
            savers.push_back(::fork());
            if (savers.back() != 0)
                continue;
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (int i = own; SaveIniFile(path, contents[i], false);)
                i = 1 - i;
            ::_exit(1);
        }
        // Until both have been seen at work, killed wherever they are then.
        bool isSeen[2] = {};
        while (!isSeen[0] || !isSeen[1]) {
            map.clear();
            ASSERT_TRUE(LoadIniFile(path, map));
            const bool isFirst = map == contents[0];
            ASSERT_TRUE(isFirst || map == contents[1]);
            isSeen[isFirst ? 0 : 1] = true;
        }
        for (const pid_t saver : savers) {
            int status = 0;
            ::kill(saver, SIGKILL);
            EXPECT_EQ(::waitpid(saver, &status, 0), saver);
            EXPECT_TRUE(WIFSIGNALED(status));
        }
        map.clear();
        EXPECT_TRUE(LoadIniFile(path, map) && (map == contents[0] || map == contents[1]));
    }
}
