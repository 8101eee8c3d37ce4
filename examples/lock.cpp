// Lets only one process at a time do something: the second to come does not wait, and is told why.

#include "ky/kyDirUtils.h"
#include "ky/kyLockFile.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace {

bool RunAlone(const std::string& path, const char* who)
{
    ky::kyLockFile lock;
    std::string error;
    const bool isAlone = lock.takeLockUtf8(path, nullptr, ky::kyLockFile::Exclusive, &error);
    std::cout << who << (isAlone ? " works alone" : " stays out: " + error) << std::endl;
    return isAlone;
}

}  // namespace

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    const std::string path =
        ky::kyDirUtils::GetTempFolderUtf8() + "/ky-example-" + std::to_string(::getpid()) + ".lock";
    ky::kyLockFile lock;
    if (!lock.takeLockUtf8(path))
        return 1;
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(RunAlone(path, "another process") ? 1 : 0);
    int status = -1;
    ::waitpid(child, &status, 0);
    lock.releaseLock(true);
    const bool isGood = status == 0 && RunAlone(path, "this process, later,");
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}
