#include "Commands.h"
#include "FolderWalk.h"
#include "LocalText.h"
#include "Progress.h"
#include "StandardStreams.h"
#include "TreeCopy.h"

#include "ky/kyDirUtils.h"
#include "ky/kySystem.h"

#include "fs/SameFile.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <cerrno>

namespace ky::tool {
namespace {

struct Options {
    std::string source;
    std::string destination;
    bool overwrite = false;
    bool quiet = false;
};

/// Adds up what there is to do. Errors are left to the work itself, which meets them too.
class Estimate : public FolderWalk {
public:
    using CostOf = double (*)(const struct ::stat&);

    Estimate(double costOfFolder, CostOf costOfEntry, const kyCancelInterfaceReadOnly& cancel)
        : FolderWalk(""), mCostOfFolder(costOfFolder), mCostOfEntry(costOfEntry), mCancel(cancel)
    {}
    double total() const { return mTotal; }

protected:
    void onEntry(int, const std::string&, const struct ::stat& status) override
    {
        mTotal += mCostOfEntry(status);
    }
    bool onFolder(const std::string&, const struct ::stat&) override
    {
        mTotal += mCostOfFolder;
        return true;
    }
    bool onLeave() override { return true; }
    void onError(const std::string&, int) override {}
    bool shouldStop() const override { return mCancel.shouldCancel(); }

private:
    const double mCostOfFolder;
    const CostOf mCostOfEntry;
    const kyCancelInterfaceReadOnly& mCancel;
    double mTotal = 0;
};

/// Counts how often clearing asks whether to stop, which it does for each entry.
class CountedCancel : public kyCancelInterfaceReadOnly {
public:
    explicit CountedCancel(kyProgressNotifierInterface& progress) : mProgress(progress) {}
    bool shouldCancel() const override
    {
        mProgress.incrementCurrentStepProgress(1);
        return mProgress.shouldCancel();
    }

private:
    kyProgressNotifierInterface& mProgress;
};

/// Opened following links, as the name of a folder given by a user is meant.
impl::ScopedFd OpenFolder(const std::string& path)
{
    impl::ScopedFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        PrintError("Cannot open " + path, errno);
    return folder;
}

impl::ScopedFd Duplicate(const impl::ScopedFd& folder)
{
    return impl::ScopedFd(::fcntl(folder.get(), F_DUPFD_CLOEXEC, 3));
}

/// Whether `folder` is `outer`, or below it: the root is its own parent.
bool IsWithin(impl::ScopedFd folder, const impl::ScopedFd& outer)
{
    while (folder && !impl::IsSameFile(folder.get(), outer.get())) {
        impl::ScopedFd parent(::openat(folder.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!parent || impl::IsSameFile(parent.get(), folder.get()))
            return false;
        folder = std::move(parent);
    }
    return static_cast<bool>(folder);
}

/// What exists of a path: the path itself or the nearest folder above it.
impl::ScopedFd OpenExistingPart(std::string path)
{
    for (;;) {
        impl::ScopedFd part(::open(path.empty() ? "." : path.c_str(), O_PATH | O_CLOEXEC));
        if (part || errno != ENOENT || path.empty())
            return part;
        const std::size_t end = path.find_last_not_of('/');
        const std::size_t slash = path.find_last_of('/', end);
        path.resize(slash == std::string::npos ? 0 : std::max<std::size_t>(slash, 1));
    }
}

int ClearFolder(const Options& options)
{
    const impl::ScopedFd folder = OpenFolder(options.source);
    if (!folder)
        return sFailure;
    if (impl::IsAtPath(folder.get(), "/", 0)) {
        PrintError("Not cleared, because it is the root of all files: " + options.source, EPERM);
        return sFailure;
    }
    // By way of the descriptor: a name that the local character set lacks works too, and what was
    // counted is what is cleared.
    const std::string path = "/proc/self/fd/" + std::to_string(folder.get());
    // Clearing a folder that is not there is a success.
    if (!impl::IsAtPath(folder.get(), path, 0)) {
        PrintError("Not cleared, because /proc is not mounted: " + options.source, ENOENT);
        return sFailure;
    }
    const auto progress = MakeProgress(options.quiet);
    // Of each folder "." and ".." are asked about as well, and its end.
    constexpr double folderEnd = 3;
    Estimate estimate(
        folderEnd + 1, [](const struct ::stat&) { return 1.0; }, *progress);
    estimate.walk(Duplicate(folder));
    progress->beginStepGroupWeights({1.0}, estimate.total() + folderEnd);

    const CountedCancel cancel(*progress);
    std::string error;
    const bool good = kyDirUtils::ClearFolderUtf8(path, false, &error, &cancel);
    if (good)
        progress->endStepGroup();
    LeaveBar();
    if (!good) {
        if (const std::size_t place = error.find(path); place != std::string::npos)
            error.replace(place, path.size(), options.source);
        std::cerr << "ky: " + error + "\n";
    }
    return good ? sSuccess : sFailure;
}

impl::ScopedFd MakeDestination(const Options& options, const impl::ScopedFd& source)
{
    const auto refuse = [&] {
        PrintError("Not copied, because it is the source or inside: " + options.destination,
                   EINVAL);
        return impl::ScopedFd();
    };
    if (IsWithin(OpenExistingPart(options.destination), source))
        return refuse();
    struct ::stat status = {};
    if (::stat(options.destination.c_str(), &status) != 0 && errno == ENOENT &&
        !kyDirUtils::MkpathUtf8(ToUtf8(options.destination))) {
        PrintError("Cannot make " + options.destination, errno);
        return impl::ScopedFd();
    }
    impl::ScopedFd destination = OpenFolder(options.destination);
    if (destination && IsWithin(Duplicate(destination), source))
        return refuse();
    return destination;
}

int CopyTree(const Options& options)
{
    impl::ScopedFd source = OpenFolder(options.source);
    struct ::stat status = {};
    if (!source || ::fstat(source.get(), &status) != 0)
        return sFailure;
    impl::ScopedFd destination = MakeDestination(options, source);
    if (!destination)
        return sFailure;

    const auto progress = MakeProgress(options.quiet);
    Estimate estimate(CopyCost(status), &CopyCost, *progress);
    estimate.walk(Duplicate(source));
    progress->beginStepGroupWeights({1.0}, estimate.total());
    TreeCopy copy(options.source, std::move(destination), options.overwrite, *progress);
    copy.walk(std::move(source));
    const bool canceled = progress->shouldCancel();
    if (!canceled)
        progress->endStepGroup();
    LeaveBar();
    if (canceled)
        std::cerr << "ky: Canceled\n";
    return canceled || copy.hasFailed() ? sFailure : sSuccess;
}

int Run(int (*work)(const Options& options), const Options& options)
{
    initializeKySystem(InitType::Light, false);
    const int exitCode = work(options);
    terminateKySystem();
    return exitCode;
}

void AddClear(CLI::App& tree, const std::shared_ptr<Options>& options, int& exitCode)
{
    auto* const command = tree.add_subcommand(
        "clear",
        "Remove all that is in a folder, but not the folder itself, and no link's target. The "
        "first entry that cannot be removed ends it.");
    command->add_option("FOLDER", options->source)->required();
    command->add_flag("-q,--quiet", options->quiet, "No progress on standard output");
    command->callback([options, &exitCode] { exitCode = Run(&ClearFolder, *options); });
}

void AddCopy(CLI::App& tree, const std::shared_ptr<Options>& options, int& exitCode)
{
    auto* const command = tree.add_subcommand(
        "copy",
        "Copy what is in the folder SOURCE into the folder DESTINATION, which is made when it is "
        "missing and must not be inside SOURCE.\n"
        "Links are copied as links. Permissions are kept, owners, times and hard links are not. "
        "What cannot be copied, as what is no file, folder or link, or what exists already, is "
        "reported and left out. Each file appears under its name once it is whole, an interrupt "
        "leaves none behind that is not. Names may be any bytes; only a DESTINATION that has to be "
        "made needs one that the local character set can express.");
    command->add_option("SOURCE", options->source)->required();
    command->add_option("DESTINATION", options->destination)->required();
    command->add_flag("-o,--overwrite", options->overwrite, "Replace files and links that exist");
    command->add_flag("-q,--quiet", options->quiet, "No progress on standard output");
    command->callback([options, &exitCode] { exitCode = Run(&CopyTree, *options); });
}

}  // namespace

void AddTree(CLI::App& app, int& exitCode)
{
    auto* const tree =
        app.add_subcommand("tree", "Clear and copy folders with all that is in them");
    tree->require_subcommand(1);
    const auto options = std::make_shared<Options>();
    AddClear(*tree, options, exitCode);
    AddCopy(*tree, options, exitCode);
}

}  // namespace ky::tool
