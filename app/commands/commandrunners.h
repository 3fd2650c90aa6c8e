// SPDX-License-Identifier: Apache-2.0
// Runs external commands and asks systemd about services.
#pragma once

#include <QString>
#include <string>

/// Runs a command through the system's command interpreter and collects its standard output.
/// The child's exit status is discarded: callers judge by the text.
/// @param command shell command line
/// @param output  receives everything that the command wrote to its standard output
/// @throws std::runtime_error "popen() failed!" when the interpreter cannot be started
void executeCMD_RC(std::string command, std::string& output);

/// Runs a command as a child process without a shell and waits for it: at most 30000 ms to start
/// and 30000 ms to finish. Failures and time-outs are not reported.
/// @param workingDirectory directory in which the command runs
/// @param command          program and arguments, split at blanks; no wildcard is expanded
/// @param verbose          log the command's output if it has any
void startBlockingProcess(QString workingDirectory, QString command, bool verbose);

/// The unit that runs the headless mode.
constexpr char kServiceUnit[] = "kor_vistrel_cli.service";

/// Asks systemd about services.
class ServiceHandler {
public:
    /// Whether a service is enabled for automatic start, judged by the word "enabled" in the
    /// answer; every failure reads as not enabled.
    static bool getDaemonServiceEnableStatus(std::string service);
};
