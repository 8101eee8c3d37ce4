#include "ky/kyCancelInterface.h"
#include "ky/kyDirUtils.h"

#include "support/Child.h"
#include "support/Library.h"

#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

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

    ~ClearFolder() override { EXPECT_TRUE(fs::exists(victim + "/sub/file")); }

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

}  // namespace

TEST_F(ClearFolder, RemovesItsOwnEntriesOnlyWhateverTheyAreAndAreCalled)
{
    ky::test::ExpectChildPassesInTheCLocale([&] {
        const std::string sub = target + "/\xC3\xA9\xFF";
        fs::create_directory(sub);
        for (const std::string& place : {target, sub}) {
            for (const std::string& to : {victim, std::string("..")})
                fs::create_symlink(to, place + "/" + std::to_string(to.size()));
            for (const std::string& name : {std::string(255, 'x'), std::string("a\nb\xFF")})
                ASSERT_EQ(::mkfifo((place + "/" + name).c_str(), 0666), 0);
        }
        EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, false, &error) && error.empty());
        EXPECT_TRUE(fs::is_empty(target));
        // Missing, no folder, or not to be named in the local set.
        for (const std::string& path :
             {folder.path("none"), victim + "/sub/file", victim + "\u00e9"})
            EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(path, true, &error));
    });
}

TEST_F(ClearFolder, NamesTheFirstThatItCannotRemove)
{
    // Bytes that are no text stand in the message as they are.
    const std::string entry = target + "/\xFF";
    for (const std::string call : {"unlink", "opendir", "rmdir"})
        for (const bool isCanceled : {false, true}) {
            SCOPED_TRACE(call);
            fs::create_directories(call == "unlink" ? target : entry);
            if (call == "unlink")
                folder.write("target/\xFF", "");
            const Meddler cancel([&] {
                if (call == "rmdir")
                    folder.write("target/\xFF/late", "");
                else
                    fs::remove(entry);
                return isCanceled && !error.empty();
            });
            EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel));
            const int errorNumber = call == "rmdir" ? ENOTEMPTY : ENOENT;
            EXPECT_EQ(errno, errorNumber);
            EXPECT_EQ(error, isCanceled
                                 ? "Canceled"
                                 : call + " error " + ErrorText(errorNumber) + " for " + entry);
            fs::remove_all(target);
        }
}

TEST_F(ClearFolder, AsksForEachEntryAndAfterEachFolderWhetherToStop)
{
    constexpr int questions = (2 + 2 + 1) + (2 + 1 + 1);
    for (int firstYes = 1; firstYes <= questions + 1; ++firstYes) {
        fs::create_directories(target + "/sub");
        folder.write("target/sub/a", "");
        folder.write("target/file", "");
        int asked = 0;
        const Meddler cancel([&] { return ++asked >= firstYes; });
        const bool isCleared = kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel);
        EXPECT_EQ(isCleared, firstYes > questions) << firstYes << " of " << asked;
        EXPECT_EQ(error, isCleared ? "" : "Canceled");
        EXPECT_EQ(fs::exists(target), !isCleared);
    }
}

TEST_F(ClearFolder, EndsThoughOthersKeepPuttingEntriesThere)
{
    int added = 0;
    const auto add = [&] {
        if (added < 1000)
            folder.write("target/" + std::to_string(++added), "");
        return false;
    };
    add();
    for (const auto& entry : fs::directory_iterator(target)) {
        add();
        fs::remove(entry);
    }
    if (added == 1000)
        GTEST_SKIP() << "Whoever reads a folder of this file system reads what others add, too";
    const Meddler cancel(add);
    EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel));
    EXPECT_EQ(error, "rmdir error " + ErrorText(ENOTEMPTY) + " for " + target);
}

TEST_F(ClearFolder, GoesToAnyDepthWithFewDescriptorsAndNotOutByAFolderThatWasMoved)
{
    // A chain longer than any path could name.
    int parent = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
    for (int level = 0; level < 2100; ++level) {
        ASSERT_EQ(::mkdirat(parent, "d", 0777), 0);
        ::close(std::exchange(parent, ::openat(parent, "d", O_RDONLY | O_CLOEXEC)));
    }
    ::close(parent);
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
    EXPECT_FALSE(fs::exists(target));
}
