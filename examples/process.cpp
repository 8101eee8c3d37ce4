// Runs programs: one to its end, one that is stopped, and one that there is not.

#include "ky/kyProcess.h"
#include "ky/kySystem.h"

#include <iostream>
#include <string>

int main()
{
    ky::initializeKySystem(ky::InitType::Light, false);
    bool isGood = true;

    std::string error;
    const int code =
        ky::kyProcess::ExecUtf8("sh", {"-c", "echo in $PWD; exit 3"}, "/", false, 60000, &error);
    std::cout << "sh: " << error << ", " << code << std::endl;
    isGood = isGood && code == 3;

    ky::kyProcess process;
    process.setProcessEnvironmentUtf8({"LANG=C"}, true);
    isGood = isGood && process.startProcess("sleep", {"1000"}, false, ky::kyProcess::Low);
    unsigned long resident = 0;
    unsigned long peak = 0;
    process.getMemoryStatistics(resident, peak);
    std::cout << "sleep: " << resident << " bytes resident" << std::endl;
    if (!process.waitForFinished(100))
        process.terminateProcess();
    isGood = isGood && process.waitForFinished(60000) && process.hasCrashed();
    std::cout << "sleep: ended by signal " << process.exitCode() << std::endl;

    isGood = isGood && process.startProcess("/no/such/program", {}) && process.hasFailedToStart();
    std::cout << process.getProgramUtf8() << ": did not start" << std::endl;
    ky::terminateKySystem();
    return isGood ? 0 : 1;
}
