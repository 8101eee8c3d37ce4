#include "ky/kyCancelInterface.h"
#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <atomic>
#include <filesystem>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyDirUtils;
using ky::test::ErrorText;

namespace {

/// A folder to clear and one beside it, which no test may change.
struct ClearFolder : ky::test::LightLibrary {
    ClearFolder()
    {
        fs::create_directories(victim + "/sub");
        folder.write("victim/sub/file", "kept");
        fs::create_directory(target);
    }

    void expectVictimWhole() const { EXPECT_TRUE(fs::exists(victim + "/sub/file")); }

    const ky::test::TemporaryFolder folder;
    const std::string target = folder.path("target");
    const std::string victim = folder.path("victim");
    std::string error = "of an earlier call";
};

/// Answers what it is made with, which may do something to the folder first.
class Meddler : public ky::kyCancelInterfaceReadOnly {
public:
    explicit Meddler(std::function<bool()> answer) : mAnswer(std::move(answer)) {}
    bool shouldCancel() const override { return mAnswer(); }

private:
    const std::function<bool()> mAnswer;
};

/// Makes a chain of folders with a fork at the end, by descriptors since no path could name that.
void MakeChain(const std::string& path, int depth)
{
    int parent = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < depth; ++level) {
        ASSERT_EQ(::mkdirat(parent, "d", 0777), 0);
        const int child = ::openat(parent, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(parent);
        parent = child;
    }
    for (const char* name : {"a", "b", "a/a", "b/b"})
        ASSERT_EQ(::mkdirat(parent, name, 0777), 0);
    ::close(parent);
}

void ExpectPassesInTheCLocale(const std::function<void()>& body)
{
    ky::test::ExpectChildPasses([&] {
        ky::terminateKySystem();
        ::setenv("LC_ALL", "C", 1);
        ky::initializeKySystem(ky::InitType::Light, false);
        body();
    });
}

}  // namespace

TEST_F(ClearFolder, RemovesItsOwnEntriesOnlyWhateverTheyAreAndAreCalled)
{
    ExpectPassesInTheCLocale([&] {
        const std::string sub = target + "/\xC3\xA9\xFF";
        fs::create_directory(sub);
        for (const std::string& place : {target, sub}) {
            const std::pair<std::string, std::string> links[] = {{victim, "folder"},
                                                                 {"/", "root"},
                                                                 {"..", "parent"},
                                                                 {".", "self"},
                                                                 {"loop", "loop"},
                                                                 {"nowhere", "dangling"},
                                                                 {victim + "/sub/file", "file"}};
            for (const auto& [to, name] : links)
                fs::create_symlink(to, place + "/" + name);
            for (const std::string& name :
                 {std::string(255, 'x'), std::string("a\nb"), std::string("\xFF"),
                  std::string("..."), std::string("?")})
                ASSERT_EQ(::mkfifo((place + "/" + name).c_str(), 0666), 0);
            fs::create_hard_link(victim + "/sub/file", place + "/hard");
            sockaddr_un address = {AF_UNIX, "socket"};
            const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
            fs::current_path(place);
            ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
            ::close(socket);
        }
        EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, false, &error)) << error;
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_EQ(error, "");
        expectVictimWhole();

        // Missing, no folder, or not to be named in the local set.
        for (const std::string& path : {folder.path("none"), victim + "/sub/file", std::string(),
                                        victim + "\u00e9", victim + std::string("\0", 1)}) {
            error = "of an earlier call";
            EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(path, true, &error));
            EXPECT_EQ(error, "");
        }
        expectVictimWhole();

        // A link that is given itself is followed, and then is no folder to remove.
        fs::create_directory(target + "/sub");
        fs::create_symlink(target, folder.path("link"));
        EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(folder.path("link"), true, &error));
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_EQ(error, "rmdir error " + ErrorText(ENOTDIR) + " for " + folder.path("link"));
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, true));
        EXPECT_FALSE(fs::exists(target));
    });
}

TEST_F(ClearFolder, NamesTheFirstThatItCannotRemove)
{
    // Bytes that the local set cannot tell stand in the message as they are.
    const std::string sub = target + "/\xFF";
    const struct {
        int errorNumber;
        std::string expected;
        std::function<void()> meddle;
    } cases[] = {
        {ENOENT, "unlink error " + ErrorText(ENOENT) + " for " + target + "/file",
         [&] { fs::remove(target + "/file"); }},
        {ENOENT, "opendir error " + ErrorText(ENOENT) + " for " + sub,
         [&] { fs::rename(sub, folder.path("moved")); }},
        {ENOTEMPTY, "rmdir error " + ErrorText(ENOTEMPTY) + " for " + sub,
         [&] { folder.write("target/\xFF/late", ""); }},
    };
    for (const auto& [errorNumber, expected, meddle] : cases)
        for (const bool isCanceled : {false, true})
            ExpectPassesInTheCLocale(
                [&, errorNumber = errorNumber, &expected = expected, &meddle = meddle] {
                    const bool isAboutFile = expected.starts_with("unlink");
                    fs::create_directories(isAboutFile ? target : sub);
                    if (isAboutFile)
                        folder.write("target/file", "");
                    bool isDone = false;
                    const Meddler cancel([&] {
                        if (errorNumber == ENOTEMPTY || !std::exchange(isDone, true))
                            meddle();
                        return isCanceled && !error.empty();
                    });
                    EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel));
                    EXPECT_EQ(errno, errorNumber);
                    EXPECT_EQ(error, isCanceled ? "Canceled" : expected);
                    EXPECT_TRUE(!isCanceled || fs::exists(target));
                    fs::remove_all(target);
                    fs::remove_all(folder.path("moved"));
                });
}

TEST_F(ClearFolder, AsksForEachEntryAndAfterEachFolderWhetherToStop)
{
    constexpr int questions = (2 + 2 + 1) + (2 + 3 + 1);
    for (int firstYes = 1; firstYes <= questions + 1; ++firstYes) {
        SCOPED_TRACE(firstYes);
        fs::create_directories(target + "/sub");
        for (const char* name : {"target/sub/a", "target/sub/b", "target/sub/c", "target/file"})
            folder.write(name, "");
        int asked = 0;
        const Meddler cancel([&] { return ++asked >= firstYes; });
        const bool isCleared = kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel);
        EXPECT_EQ(isCleared, firstYes > questions);
        EXPECT_EQ(error, isCleared ? "" : "Canceled");
        EXPECT_EQ(fs::exists(target), !isCleared);
        EXPECT_TRUE(firstYes < questions || asked == questions) << asked;
    }
}

TEST_F(ClearFolder, GoesToAnyDepthWithFewDescriptorsAndNotOutByAFolderThatWasMoved)
{
    MakeChain(target, 2100);  // longer than any path
    ky::test::ExpectChildPasses([&] {
        const rlimit few = {64, 64};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        int asked = 0;
        // Far down, the folders at the start of the chain are not held open any more.
        const Meddler cancel([&] {
            if (++asked == 150)
                fs::rename(target + "/d", victim + "/d");
            return false;
        });
        EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel));
        EXPECT_EQ(error, "opendir error " + ErrorText(ENOENT) + " for " + target);
        expectVictimWhole();

        fs::rename(victim + "/d", target + "/d");
        EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, true, &error)) << error.substr(0, 99);
    });
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(ClearFolder, StaysInsideWhenAFolderThatWasReadBecomesALink)
{
    fs::create_directory(target + "/sub");
    fs::create_directory_symlink(victim, folder.path("link"));
    bool isExchanged = false;
    const Meddler cancel([&] {
        if (!std::exchange(isExchanged, true))
            ::renameat2(AT_FDCWD, (target + "/sub").c_str(), AT_FDCWD, folder.path("link").c_str(),
                        RENAME_EXCHANGE);
        return false;
    });
    EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel)) << error;
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(folder.path("link"))));
    EXPECT_FALSE(fs::exists(target));
    expectVictimWhole();
}

TEST_F(ClearFolder, StaysInsideWhileFoldersAndLinksAreExchanged)
{
    constexpr int rounds = 300;
    std::atomic<int> round = 0;
    std::atomic<int> exchanges = 0;
    const auto path = [&](int number) { return target + "/" + std::to_string(number); };
    const std::jthread attacker([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const std::string current = path(round);
            exchanges += ::renameat2(AT_FDCWD, (current + "/sub").c_str(), AT_FDCWD,
                                     (current + "/link").c_str(), RENAME_EXCHANGE) == 0;
        }
    });
    int cleared = 0;
    // More of them on a machine that leaves the attacker no time.
    for (; round < rounds || (exchanges == 0 && round < 20 * rounds); ++round) {
        const std::string made = folder.path("made");
        fs::create_directories(made + "/sub/sub");
        folder.write("made/sub/sub/file", "");
        fs::create_directory_symlink(victim, made + "/link");
        fs::rename(made, path(round));
        cleared += kyDirUtils::ClearFolderUtf8(path(round), true);
        ASSERT_TRUE(fs::exists(victim + "/sub/file")) << round;
    }
    EXPECT_GT(exchanges, 0);
    EXPECT_GT(cleared, 0);
}
