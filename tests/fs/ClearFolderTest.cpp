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

}  // namespace

TEST_F(ClearFolder, RemovesItsOwnEntriesOnlyWhateverTheyAreAndAreCalled)
{
    ky::test::ExpectChildPassesInTheCLocale([&] {
        const std::string sub = target + "/\xC3\xA9\xFF";
        fs::create_directory(sub);
        for (const std::string& place : {target, sub}) {
            const std::string links[] = {victim, "/", "..", ".", "0", "nowhere"};
            for (const std::string& to : links)
                fs::create_symlink(to, place + "/" + std::to_string(&to - links));
            for (const std::string& name : {std::string(255, 'x'), std::string("a\nb"),
                                            std::string("\xFF"), std::string("...")})
                ASSERT_EQ(::mkfifo((place + "/" + name).c_str(), 0666), 0);
            fs::create_hard_link(victim + "/sub/file", place + "/hard");
        }
        EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(target, false, &error)) << error;
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_EQ(error, "");

        // Missing, no folder, or not to be named in the local set.
        for (const std::string& path :
             {folder.path("none"), victim + "/sub/file", victim + "\u00e9"})
            EXPECT_TRUE(kyDirUtils::ClearFolderUtf8(path, true, &error));
        expectVictimWhole();

        // A link that is given itself is followed, and then is no folder to remove.
        fs::create_directory(target + "/sub");
        fs::create_symlink(target, folder.path("link"));
        EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(folder.path("link"), true, &error));
        EXPECT_EQ(error, "rmdir error " + ErrorText(ENOTDIR) + " for " + folder.path("link"));
        EXPECT_TRUE(fs::is_empty(target));
    });
}

TEST_F(ClearFolder, NamesTheFirstThatItCannotRemove)
{
    // Bytes that are no text stand in the message as they are.
    const std::string sub = target + "/\xFF";
    const std::string file = target + "/file";
    const struct {
        const char* call;
        int errorNumber;
        const std::string& path;
        std::function<void()> meddle;
    } rows[] = {
        {"unlink", ENOENT, file, [&] { fs::remove(file); }},
        {"opendir", ENOENT, sub, [&] { fs::remove(sub); }},
        {"rmdir", ENOTEMPTY, sub, [&] { folder.write("target/\xFF/late", ""); }},
    };
    for (const auto& row : rows)
        for (const bool isCanceled : {false, true}) {
            SCOPED_TRACE(row.call);
            fs::create_directories(&row.path == &sub ? sub : target);
            if (&row.path == &file)
                folder.write("target/file", "");
            bool isDone = false;
            const Meddler cancel([&] {
                if (row.errorNumber == ENOTEMPTY || !std::exchange(isDone, true))
                    row.meddle();
                return isCanceled && !error.empty();
            });
            EXPECT_FALSE(kyDirUtils::ClearFolderUtf8(target, true, &error, &cancel));
            EXPECT_EQ(errno, row.errorNumber);
            EXPECT_EQ(error, isCanceled ? "Canceled"
                                        : row.call + (" error " + ErrorText(row.errorNumber)) +
                                              " for " + row.path);
            EXPECT_TRUE(!isCanceled || fs::exists(target));
            fs::remove_all(target);
        }
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
