#include "Commands.h"

#include "ky/kyStringUtils.h"
#include "ky/kySystem.h"
#include "ky/kySystemUtils.h"
#include "ky/kyVersion.h"

#include <iostream>

namespace ky::tool {
namespace {

void PrintInfo()
{
    initializeKySystem(InitType::Light, false);
    const auto resident = static_cast<unsigned long>(
        kySystemUtils::GetUsedRamQuantityInBytes(kySystemUtils::Resident));
    std::cout << "version    " << kySystem::Version::GetDescStringMajorMinorReleaseRevisionDate()
              << "\n"
              << "process    " << kySystemUtils::GetCurrentProcessID() << ", parent "
              << kySystemUtils::GetParentProcessID() << "\n"
              << "memory     " << resident << " bytes resident ("
              << kyStringUtils::humanizeNumberGeneric(resident, 3, 1, true, true, false) << "B)\n"
              << "threads    " << kySystemUtils::GetIdealThreadCount() << " at once\n"
              << "local time " << kySystemUtils::GetCurrentDateTimeISO(true) << "\n"
              << "UTC        " << kySystemUtils::GetCurrentDateTimeISO(false) << "\n"
              << "time base  " << kySystemUtils::GetTimeBaseMs() << " ms ("
              << kyStringUtils::humanizeDuration<long>(
                     static_cast<long>(kySystemUtils::GetTimeBaseMs()), 1, false)
              << ")\n"
              << "main disk  " << (getMainHDDDevice().empty() ? "unknown" : getMainHDDDevice())
              << "\n";
    terminateKySystem();
}

}  // namespace

void AddInfo(CLI::App& app, int& /*exitCode*/)
{
    app.add_subcommand("info", "Print version, process, memory, threads and clocks")
        ->callback(&PrintInfo);
}

}  // namespace ky::tool
