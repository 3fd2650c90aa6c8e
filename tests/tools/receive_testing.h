// SPDX-License-Identifier: Apache-2.0
// What the tests of vistrel-receive as a program share.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

#include "tests/support/contents.h"
#include "tests/support/freeport.h"
#include "tests/support/outcome.h"

/// Runs vistrel-receive.
inline Outcome receive(const QStringList& arguments, const QProcessEnvironment& environment =
                                                         QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(VISTREL_RECEIVE, arguments);
    return finish(process);
}

/// sample_sender on a port of its own, until the object goes.
class SampleSender {
public:
    /// @param stream the rig's stream object
    explicit SampleSender(const QStringList& options = {}, const QByteArray& stream = "{}")
    {
        QFile rig(folder.filePath("rig.json"));
        rig.open(QIODevice::WriteOnly);
        rig.write("{\"cameras\": [], \"stream\": " + stream + "}");
        rig.close();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("KOR_RIG", rig.fileName());
        process.setProcessEnvironment(environment);
        process.start(VISTREL_SAMPLE_SENDER, QStringList{QString::number(port)} + options);
    }
    ~SampleSender() { end(); }
    SampleSender(const SampleSender&) = delete;
    SampleSender& operator=(const SampleSender&) = delete;

    /// Whether it serves the stream.
    bool isReady()
    {
        return process.waitForReadyRead(60000) &&
               process.readAllStandardOutput().startsWith("ready");
    }

    bool end()
    {
        process.terminate();
        return process.state() == QProcess::NotRunning || process.waitForFinished(20000);
    }

    /// @param user with an @ behind, or empty
    QString address(const QString& user = {}) const
    {
        return "rtsp://" + user + "127.0.0.1:" + QString::number(port) + "/stereo";
    }

private:
    const QTemporaryDir folder;
    const int port = freePort();
    QProcess process;
};

/// The statistics in a file that --json has written.
inline QJsonObject statisticsIn(const QString& path)
{
    return QJsonDocument::fromJson(contents(path)).object();
}
