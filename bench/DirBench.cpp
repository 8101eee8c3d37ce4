// Path text, clearing and copying, turn by turn with the standard library and bare loops. Folders
// are made below "TMPDIR": the file system there decides about the times.

#include "Timing.h"

#include "ky/kyDirUtils.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>

namespace fs = std::filesystem;
using ky::kyDirUtils;

namespace {

constexpr std::size_t sCopyBytes = std::size_t{1} << 30;
constexpr int sFlatFiles = 100000;

class TemporaryFolder {
public:
    TemporaryFolder()
    {
        std::string path = kyDirUtils::GetTempFolderUtf8() + "/ky-bench-XXXXXX";
        if (::mkdtemp(path.data()) == nullptr)
            std::abort();
        mPath = path;
    }
    ~TemporaryFolder() { kyDirUtils::ClearFolderUtf8(mPath, true); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

void CompareSimplify(benchmark::State& state, const std::vector<std::string>& paths)
{
    Compare(
        state,
        [&] {
            for (const std::string& path : paths)
                benchmark::DoNotOptimize(kyDirUtils::SimplifyPath(path));
        },
        [&] {
            for (const std::string& path : paths)
                benchmark::DoNotOptimize(fs::path(path).lexically_normal().string());
        });
}

void SimplifyUsualPaths(benchmark::State& state)
{
    std::vector<std::string> paths;
    for (int i = 0; i < 100; ++i) {
        const std::string number = std::to_string(i);
        paths.push_back("/usr/share/doc/package" + number + "/./examples/../README.md");
        paths.push_back("../project" + number + "//src/main.cpp");
        paths.push_back("/etc/hosts" + number);
    }
    CompareSimplify(state, paths);
}
BENCHMARK(SimplifyUsualPaths)->UseManualTime();

/// The argument is the number of "a/../", to show that the time grows with it and not faster.
void SimplifyLongPath(benchmark::State& state)
{
    std::string path;
    for (std::int64_t i = 0; i < state.range(0); ++i)
        path += "a/../";
    CompareSimplify(state, {path});
    state.SetBytesProcessed(static_cast<std::int64_t>(path.size()) * state.iterations());
}
BENCHMARK(SimplifyLongPath)->Arg(2000)->Arg(20000)->Arg(200000)->UseManualTime();

void MakeFlat(const std::string& path)
{
    fs::create_directory(path);
    const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < sFlatFiles; ++i)
        ::close(::openat(folder, std::to_string(i).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ::close(folder);
}

/// A thousand folders of ten files each in folders of ten.
void MakeTree(const std::string& path)
{
    for (int i = 0; i < 1000; ++i) {
        const std::string sub = path + "/" + std::to_string(i / 100) + "/" +
                                std::to_string(i / 10 % 10) + "/" + std::to_string(i % 10);
        fs::create_directories(sub);
        for (int j = 0; j < 10; ++j)
            ::close(::open((sub + "/" + std::to_string(j)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC,
                           0644));
    }
}

/// By descriptors, since no path could name the end.
void MakeChain(const std::string& path, std::int64_t depth)
{
    fs::create_directory(path);
    int parent = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (std::int64_t level = 0; level < depth; ++level) {
        ::mkdirat(parent, "d", 0777);
        const int child = ::openat(parent, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(parent);
        parent = child;
    }
    ::close(parent);
}

template <typename Make>
void CompareClear(benchmark::State& state, Make make)
{
    const TemporaryFolder folder;
    std::string error;
    Compare(
        state,
        [&] {
            // Both before either is removed: some file systems are slow to make files after that.
            make(folder.path("ours"));
            make(folder.path("peers"));
        },
        [&] {
            if (!kyDirUtils::ClearFolderUtf8(folder.path("ours"), true, &error))
                state.SkipWithError(error.c_str());
        },
        [&] { fs::remove_all(folder.path("peers")); });
}

void ClearFlat(benchmark::State& state)
{
    CompareClear(state, &MakeFlat);
}
BENCHMARK(ClearFlat)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(4);

void ClearTree(benchmark::State& state)
{
    CompareClear(state, &MakeTree);
}
BENCHMARK(ClearTree)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(9);

void ClearChain(benchmark::State& state)
{
    CompareClear(state, [&](const std::string& path) { MakeChain(path, state.range(0)); });
}
BENCHMARK(ClearChain)->Arg(500)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(9);

/// Without a peer: std::filesystem holds a descriptor for each level and runs out of them.
void ClearDeepChain(benchmark::State& state)
{
    const TemporaryFolder folder;
    const std::string path = folder.path("made");
    std::string error;
    for (auto _ : state) {
        MakeChain(path, state.range(0));
        bool isCleared = false;
        state.SetIterationTime(
            Seconds([&] { isCleared = kyDirUtils::ClearFolderUtf8(path, true, &error); }));
        if (!isCleared)
            state.SkipWithError(error.substr(0, 200).c_str());
    }
}
BENCHMARK(ClearDeepChain)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void FillFile(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::vector<char> block(1 << 20, 'x');
    for (std::size_t size = 0; size < sCopyBytes; size += block.size())
        static_cast<void>(::write(fd, block.data(), block.size()) == 0);
    ::close(fd);
}

void CopyBare(const std::string& source, const std::string& destination)
{
    const int from = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    const int to = ::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    char block[8192];
    ssize_t size = 0;
    while ((size = ::read(from, block, sizeof block)) > 0)
        static_cast<void>(::write(to, block, static_cast<std::size_t>(size)) == 0);
    ::close(from);
    ::close(to);
}

template <typename Peer>
void CompareCopy(benchmark::State& state, Peer peer)
{
    const TemporaryFolder folder;
    const std::string source = folder.path("source");
    FillFile(source);
    Compare(
        state,
        [&] {
            fs::remove(folder.path("ours"));
            fs::remove(folder.path("peers"));
        },
        [&] { kyDirUtils::CopyFileUtf8(source, folder.path("ours"), true); },
        [&] { peer(source, folder.path("peers")); });
    state.SetBytesProcessed(static_cast<std::int64_t>(sCopyBytes) * state.iterations());
}

void CopyBesideBareLoop(benchmark::State& state)
{
    CompareCopy(state, &CopyBare);
}
BENCHMARK(CopyBesideBareLoop)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);

/// Which has the kernel copy (copy_file_range(2), sendfile(2)), in large pieces and without a way
/// through this process, or share the blocks; blocks of 8192 bytes through two calls are told.
void CopyBesideStandardLibrary(benchmark::State& state)
{
    CompareCopy(state, [](const std::string& source, const std::string& destination) {
        fs::copy_file(source, destination, fs::copy_options::overwrite_existing);
    });
}
BENCHMARK(CopyBesideStandardLibrary)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(4);

}  // namespace
