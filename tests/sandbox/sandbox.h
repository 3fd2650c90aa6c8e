// SPDX-License-Identifier: Apache-2.0
// Runs programs where the product's absolute paths are private, with stand-ins for sudo and
// systemctl.
#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

class QProcess;

namespace sandbox {

/// Whether this machine allows a private mount namespace.
/// @param reason receives one line when it does not
bool available(QString* reason = nullptr);

/// Ends the test program as skipped: prints the reason as QtTest does and exits with the status
/// that ctest takes as such (SKIP_RETURN_CODE). For what the whole program needs; QSKIP, which
/// skips one function, leaves the program "passed".
[[noreturn]] void skipProgram(const QString& reason);

/// skipProgram() when this machine allows no private mount namespace. Call it in initTestCase().
void skipProgramUnlessAvailable();

/// Stand-ins for external commands, in a temporary directory: they record their arguments and
/// answer as told. See tests/sandbox/commands/stand-in.
class StandIns {
public:
    StandIns();

    /// The directory that holds the commands; it belongs first on PATH.
    QString commandDirectory() const;

    /// Adds a command that is answered here.
    void add(const QString& command);

    /// What a command prints and its exit status.
    void answer(const QString& command, const QByteArray& output, const QByteArray& error = {},
                int status = 0);

    /// Shell text that runs at each call of a command, before its answer; "$@" are the arguments.
    void script(const QString& command, const QByteArray& text);

    /// One line per call so far, in order: name and arguments with one blank between them.
    QStringList calls() const;

    /// Forgets the calls so far.
    void clearCalls();

    /// Makes the commands answer in this very process and its children, until this object goes.
    void install();

    /// @p environment changed so that a child process calls the stand-ins.
    QProcessEnvironment environment(QProcessEnvironment environment) const;

    ~StandIns();

private:
    QString file(const QString& name) const;

    QTemporaryDir directory;
    QByteArray formerPath;
    bool installed = false;
};

/// What a sandboxed program sees and how it is run.
struct Options {
    QString settings;      ///< shown as /usr/local/kor/settings; empty: nothing in there
    QString sharedMemory;  ///< shown as /dev/shm; empty: nothing in there
    const StandIns* standIns = nullptr;
    bool privateNetwork = false;  ///< a network with nothing but a loopback interface
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
};

/// Prepares @p process to run a program in the sandbox; the caller starts it. Debug output goes to
/// its standard error. The program ends when the caller's process does.
void prepare(QProcess& process, const Options& options, const QString& program,
             const QStringList& arguments = {});

/// How a program ended, and what it printed.
struct Result {
    bool finished = false;  ///< false: it was killed because it ran too long
    int status = -1;        ///< exit status; 128 + signal when a signal ended it
    QByteArray output;
    QByteArray error;
};

/// Runs a program in the sandbox to its end.
/// @param milliseconds limit after which it is killed
Result run(const Options& options, const QString& program, const QStringList& arguments = {},
           int milliseconds = 30000);

/// Writes a file, replacing what was there; false when that failed.
bool writeFile(const QString& path, const QByteArray& content);

/// Content of a file; empty when it cannot be read.
QByteArray readFile(const QString& path);

}  // namespace sandbox
