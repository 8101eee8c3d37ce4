#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace ky::tool {

/// Exit codes of every sub-command.
constexpr int sSuccess = 0;
constexpr int sFailure = 1;
constexpr int sUsageError = 2;

/// Each adds one sub-command to `app`; when it is chosen it runs while the command line is parsed
/// and stores its outcome in `exitCode`.
void AddCrash(CLI::App& app, int& exitCode);
void AddInfo(CLI::App& app, int& exitCode);
void AddIni(CLI::App& app, int& exitCode);
void AddLog(CLI::App& app, int& exitCode);
void AddMime(CLI::App& app, int& exitCode);
void AddPipe(CLI::App& app, int& exitCode);
void AddTee(CLI::App& app, int& exitCode);

void AddTree(CLI::App& app, int& exitCode);

/// `command` is what stands behind "--", which belongs to the program that is to run.
void AddLock(CLI::App& app, const std::vector<std::string>& command, int& exitCode);
void AddRun(CLI::App& app, const std::vector<std::string>& command, int& exitCode);

}  // namespace ky::tool
