// A log file that stays within its limits: put aside when it is full, the oldest one removed.

#include "ky/kyDirUtils.h"
#include "ky/kyLog.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

#include <unistd.h>

int main()
{
    ky::initializeKySystem(ky::InitType::Full, false);
    const std::string folder =
        ky::kyDirUtils::GetTempFolderUtf8() + "/ky-example-" + std::to_string(::getpid());
    ky::kyLog* const log = ky::kyLog::Instance();
    std::string error;
    // At most three files of 64 KiB, and a new one each day.
    bool isGood = log->installFileHandlerExUtf8(folder, "app.log", ky::kyLog::FileAppend, 3, 65536,
                                                ky::kyLog::TimeRotationInterval::Daily, &error);
    if (!isGood)
        std::cout << "no log file: " << error << '\n';
    for (int i = 0; i < 5000; ++i)
        ky::kyLogObject(ky::kyLog::Info, "loop") << "round " << i;
    log->flush();

    ky::kyFileInfoUtf8 info;
    ky::kyDirUtils::GetFileInfoUtf8(folder + "/app.log", info);
    std::cout << "the current file has " << info.size << " bytes\n";
    isGood = isGood && info.size > 0 && info.size <= 65536 && log->getLostLineCount() == 0;
    log->removeFileHandler();
    isGood = ky::kyDirUtils::ClearFolderUtf8(folder, true) && isGood;
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}
